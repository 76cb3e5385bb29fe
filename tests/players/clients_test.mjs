// ffprobe, ffmpeg and VLC read live runs as HLS clients, and every rewrite of every playlist passes an
// independent parser and the rules of RFC 8216. VORN_BUILD names the build folder.

import assert from 'node:assert/strict';
import {execFile} from 'node:child_process';
import {chmodSync, mkdirSync, readFileSync, watch} from 'node:fs';
import {join} from 'node:path';
import {after, before, test} from 'node:test';
import {promisify} from 'node:util';
import {Parser} from 'm3u8-parser';
import {LiveRun, at_home_in, modes, picture, pictures_per_second, wait_for} from './live_run.mjs';
import {check_master, check_media, check_rewrite, check_transport_stream, check_webvtt, parse_media} from './rules.mjs';

const execute = promisify(execFile);
const play_seconds = 6;
const time_limit_ms = 240000; // for a machine with much else to do

// What a client finds. Both audio streams are in the fragments, unless they go separate ways.
const cases = [
    {mode: 'default', video: 'h264', audio: 2, subtitles: 2},
    {mode: 'no_multilevel', video: 'h264', audio: 2, subtitles: 0},
    {mode: 'start_pat_pmt', video: 'h264', audio: 2, subtitles: 2},
    {mode: 'separate_streams', video: 'h264', audio: 2, subtitles: 2},
    {mode: 'long_gop', video: 'h264', audio: 2, subtitles: 2},
    {mode: 'audio_only', video: null, audio: 1, subtitles: 0},
    {mode: 'audio_only_multilevel', video: null, audio: 1, subtitles: 0},
    {mode: 'mpeg2', video: 'mpeg2video', audio: 2, subtitles: 2},
];

let run;
const rewrites = new Map(); // by path: the texts that the playlist has had, oldest first
const watchers = [];

before(async () => {
    run = new LiveRun(process.env.VORN_BUILD);
    await run.start(cases.map(({mode}) => mode));
    cases.forEach(({mode}) => follow_playlists(mode));
});

after(async () => {
    watchers.forEach(watcher => watcher.close());
    await run?.stop();
});

function follow_playlists(mode) {
    watchers.push(watch(run.directory_of(mode), (event, name) => {
        if (event !== 'rename' || !name.endsWith('.m3u8'))
            return;
        const path = join(mode, name);
        const texts = rewrites.get(path) ?? [];
        const text = run.read(mode, name);
        if (text !== texts.at(-1))
            rewrites.set(path, [...texts, text]);
    }));
}

async function probe(input, ...options) {
    const {stdout} = await execute('ffprobe', ['-v', 'error', '-of', 'json', '-show_streams', ...options, input],
        {timeout: time_limit_ms, maxBuffer: 1 << 24});
    return JSON.parse(stdout).streams.filter(({codec_type}) => codec_type !== 'data');
}

function expect_streams(streams, {video, audio}, codec = video) {
    const of_type = type => streams.filter(({codec_type}) => codec_type === type);
    assert.equal(of_type('audio').length, audio, 'audio streams');
    assert.equal(of_type('video').length, video ? 1 : 0, 'video streams');
    for (const {codec_name, width, height} of of_type('video'))
        assert.deepEqual({codec_name, width, height}, {codec_name: codec, ...picture});
}

for (const wanted of cases) {
    const {mode} = wanted;

    test(`ffprobe, ${mode}`, async () => {
        await run.ready(mode);
        expect_streams(await probe(run.url_of(mode)), wanted);
    });

    // Decodes every rendition and counts what came out, in time with what went in.
    test(`ffmpeg, ${mode}`, async () => {
        const output = join(run.directory, `${mode}.nut`);
        await execute('ffmpeg', ['-nostdin', '-v', 'error', '-i', run.url_of(mode), '-map', '0:v?', '-map', '0:a',
            '-t', String(play_seconds), '-c:v', 'rawvideo', '-c:a', 'pcm_s16le', '-y', output],
        {timeout: time_limit_ms});
        const streams = await probe(output, '-count_packets');
        expect_streams(streams, wanted, 'rawvideo');
        for (const stream of streams.filter(({codec_type}) => codec_type === 'video'))
            assert.ok(stream.nb_read_packets >= (play_seconds - 1) * pictures_per_second, `${stream.nb_read_packets}`);
    });
}

// VLC has no wish to run as root, so it runs as nobody then.
function vlc(directory, ...args) {
    const root = process.getuid() === 0;
    const drop = ['--reuid=65534', '--regid=65534', '--clear-groups', 'vlc'];
    return execute(root ? 'setpriv' : 'vlc', [...root ? drop : [], ...args],
        {timeout: time_limit_ms, maxBuffer: 1 << 26, env: at_home_in(directory)});
}

// It decodes and encodes anew, so that what it has seen can be counted.
for (const wanted of cases.filter(({mode}) => ['default', 'long_gop', 'separate_streams', 'mpeg2'].includes(mode))) {
    const {mode, subtitles} = wanted;

    test(`VLC, ${mode}`, async context => {
        await run.ready(mode);
        const directory = join(run.directory, `vlc.${mode}`);
        mkdirSync(directory);
        chmodSync(directory, 0o777);
        chmodSync(run.directory, 0o755);
        const output = join(directory, 'out.ts');
        // It runs by the machine's clock: a busy machine needs another try.
        const enough = (play_seconds - 4) * pictures_per_second;
        let stderr, streams, video;
        for (let tries = 0; tries < 3; tries++) {
            ({stderr} = await vlc(directory, '-I', 'dummy', '-vv', '--run-time', String(play_seconds), run.url_of(mode),
                '--sout', `#transcode{vcodec=mp2v,vb=500,acodec=mpga,ab=64}:std{access=file,mux=ts,dst=${output}}`,
                '--sout-all', 'vlc://quit'));
            streams = await probe(output, '-count_packets');
            [video] = streams.filter(({codec_type}) => codec_type === 'video');
            if (video?.nb_read_packets >= enough)
                break;
        }
        assert.deepEqual({width: video?.width, height: video?.height}, picture);
        assert.ok(video.nb_read_packets >= enough, `${video.nb_read_packets}`);
        assert.ok(streams.some(({codec_type}) => codec_type === 'audio'));
        const found = new Set(stderr.match(/Representation \S+\.vtt\.m3u8/g));
        assert.equal(found.size, subtitles, 'subtitle renditions');
        context.diagnostic(streams.map(({codec_type, nb_read_packets}) => `${codec_type}: ${nb_read_packets}`).join(', '));
    });
}

// The rules that are known not to be met, and where.
const long_segments = '4.3.3.1 no segment is longer than the target duration';
const no_rate = '4.3.4.2 BANDWIDTH is the peak rate';
const no_group = '4.3.4.1 a rendition has a group';

function unexpected(found, ...known) {
    return found.filter(({rule}) => !known.includes(rule)).map(({rule, detail}) => `${rule}: ${detail}`);
}

// An independent parser's reading.
function parsed(text, known_complaints = []) {
    const parser = new Parser();
    const complaints = [];
    for (const event of ['warn', 'error'])
        parser.on(event, complaint => complaints.push(complaint.message));
    parser.push(text);
    parser.end();
    assert.deepEqual(complaints.filter(complaint => !known_complaints.includes(complaint)), [], text);
    return parser.manifest;
}

function check_master_texts(mode, texts) {
    const wanted = modes[mode];
    texts.forEach((text, i) => {
        const last = i === texts.length - 1;
        const rate_known = last && wanted.source !== 'audio';
        assert.deepEqual(unexpected(check_master(text), ...rate_known ? [] : [no_rate], ...last ? [] : [no_group]), []);
        const manifest = parsed(text, last ? [] : ['ignoring incomplete or missing media group']);
        assert.equal(manifest.playlists.length, 1);
        assert.equal(manifest.playlists[0].attributes.BANDWIDTH > 0, !text.includes('BANDWIDTH=0,'));
    });
    const {mediaGroups: groups} = parsed(texts.at(-1));
    assert.deepEqual(Object.keys(groups.SUBTITLES.subs ?? {}), wanted.captions ? ['English', 'Spanish'] : []);
    assert.deepEqual(Object.keys(groups.AUDIO.aud ?? {}), mode === 'separate_streams' ? ['Main', 'SAP'] : []);
}

function check_media_texts(path, texts) {
    const known = path.startsWith('long_gop') ? [long_segments] : [];
    texts.forEach((text, i) => {
        assert.deepEqual(unexpected(check_media(text), ...known), [], path);
        if (i > 0)
            assert.deepEqual(unexpected(check_rewrite(texts[i - 1], text)), [], path);
        const manifest = parsed(text);
        const own = parse_media(text);
        assert.deepEqual(manifest.segments.map(({uri, duration}) => ({uri, duration})), own.segments);
        assert.equal(manifest.mediaSequence ?? 0, own.sequence);
        assert.equal(manifest.endList, undefined);
    });
}

test('every rewrite of every playlist', async context => {
    await wait_for('fragments to be deleted in every run', 90, () => cases.every(({mode}) =>
        parse_media(run.read(mode, run.media_playlist_of(mode))).sequence > 3));
    for (const [path, texts] of rewrites) {
        const [mode] = path.split('/');
        if (texts[0].includes('#EXT-X-STREAM-INF'))
            check_master_texts(mode, texts);
        else
            check_media_texts(path, texts);
        context.diagnostic(`${path}: ${texts.length} versions`);
    }
    const count = name => [...rewrites.keys()].filter(path => path.endsWith(name)).length;
    assert.equal(count('.vtt.m3u8'), 2 * cases.filter(({mode}) => modes[mode].captions).length);
    assert.equal(count('.a.m3u8') + count('.sap.m3u8'), 2);
});

test('long groups of pictures make the segments that the page predicts', () => {
    const {segments, target} = parse_media(run.read('long_gop', 'ch1.m3u8.av.m3u8'));
    assert.equal(target, 1);
    assert.ok(segments.length > 0);
    for (const {uri, duration} of segments)
        assert.equal(duration, 2, uri);
});

test('every listed segment', () => {
    for (const [path, texts] of rewrites) {
        const [mode] = path.split('/');
        for (const {uri} of parse_media(texts.at(-1)).segments) {
            if (uri.endsWith('.m3u8'))
                continue;
            const bytes = readFileSync(join(run.directory_of(mode), uri));
            if (uri.endsWith('.vtt')) {
                const hours = 'WebVTT: hours have two digits'; // and all readers take one
                assert.deepEqual(unexpected(check_webvtt(bytes.toString()), hours), [], uri);
            } else {
                const tables_first = ['start_pat_pmt', 'separate_streams'].includes(mode);
                const known = tables_first ? [] : ['3.2 a segment begins with its PAT and PMT'];
                assert.deepEqual(unexpected(check_transport_stream(bytes), ...known), [], uri);
            }
        }
    }
});
