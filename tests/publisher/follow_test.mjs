// Each mode of the program, published: complete, by every rule, byte for byte.

import assert from 'node:assert/strict';
import {readFileSync, readdirSync, writeFileSync} from 'node:fs';
import {join} from 'node:path';
import {test} from 'node:test';
import {media_packets, read_media} from './checker.mjs';
import {packets_of, read_segment} from './segment.mjs';
import {Program, feeder, listed_seconds, presentation, stream, watch_until} from './runs.mjs';

const whole_window = ['--window', 600, '--segment', 4, '--iframes', '--listen', '127.0.0.1:0'];

const cases = [
    {name: 'default', options: [], codecs: /^avc1\.[0-9A-F]{6},mp4a\.40\.2$/},
    {name: 'tables first', options: ['--start-pat-pmt'], codecs: /^avc1\.[0-9A-F]{6},mp4a\.40\.2$/},
    {name: 'without a master playlist', options: ['--no-multilevel', '--start-pat-pmt'], codecs: /^avc1/},
    {name: 'separate streams', options: ['--separate-streams', '--start-pat-pmt', '--sap'], codecs: /^avc1\.[0-9A-F]{6},mp4a\.40\.2$/,
        tracks: {'main.audio.m3u8': '.a.', 'main.sap.m3u8': '.sap.'}, lead: '.v.'},
    {name: 'MPEG-2 video', kind: 'mpeg2', options: [], codecs: /^mp4v\.61,mp4a\.40\.34$/},
    {name: 'audio alone', kind: 'audio', options: [], codecs: /^mp4a\.40\.2$/},
];

// Fragments that hold one stream, or all, put together.
function fragments_of(program, part) {
    return Buffer.concat(program.fragments().filter(name => name.includes(part ?? 'run.'))
        .map(name => readFileSync(join(program.directory, name))));
}

for (const {name, kind = 'h264', options, codecs, tracks = {}, lead} of cases) {
    test(`${name}: all of it is published, and nothing else`, async context => {
        const seconds = kind === 'audio' ? 30 : 40;
        const run = presentation('follow', {options: whole_window, checker: {h264: kind === 'h264'}});
        context.after(() => run.publisher.kill());
        const program = new Program(run.source, {options});
        await program.feed(stream({kind, seconds}));
        assert.equal(await program.end(), 0, program.errors);
        await watch_until(run.checker, 'the whole stream', () => listed_seconds(run.checker) > seconds - 9);
        // The last fragment is that of a run that has ended. The step behind it is the last, and its lists
        // are replaced one after the other.
        const last = program.fragments().at(-1);
        for (const [playlist, part] of [['main.m3u8', lead], ...Object.entries(tracks)]) {
            await watch_until(run.checker, `${last} is published in ${playlist}`, () => {
                const {segments} = read_media(readFileSync(join(run.output, playlist), 'utf8'));
                const published = Buffer.concat(segments.map(({uri}) => run.checker.bytes_of(uri)));
                return media_packets(published).equals(media_packets(fragments_of(program, part)));
            });
        }
        assert.deepEqual(run.checker.finish(), []);
        assert.match(run.checker.variant.codecs, codecs);
        const {segments} = run.checker.list();
        assert.equal(segments.filter(({discontinuity}) => discontinuity).length, 0);
        if (kind === 'h264') {
            assert.deepEqual({...run.checker.variant.resolution}, {width: 320, height: 180});
            assert.equal(run.checker.variant.frameRate, 25);
        }
        if (name === 'separate streams')
            assert.match(run.checker.master_text, /NAME="English",LANGUAGE="en",DEFAULT=YES.*\n.*NAME="Spanish",LANGUAGE="es",DEFAULT=NO/);
        assert.equal((await run.publisher.ask('/healthz')).text, 'ok\n');
        const delivered = JSON.parse((await run.publisher.ask('/segments')).text).segments;
        const identity = ({sequence, date, duration}) => [sequence, Number(new Date(date)), duration.toFixed(5)];
        assert.deepEqual(delivered.map(identity), segments.map(identity));
        for (const {renditions} of delivered) {
            assert.deepEqual(renditions.map(({name}) => name), ['main']);
            assert.deepEqual([...new Set(renditions[0].sources)], [run.source]);
        }
        const {text} = await run.publisher.ask('/metrics');
        assert.match(text, new RegExp(`^vorn_hls_publish_listed_segments\\{rendition="main"\\} ${segments.length}$`, 'm'));
        assert.match(text, new RegExp(`^vorn_hls_publish_segments_total\\{rendition="main"\\} ${segments.length}$`, 'm'));
        assert.match(text, /^vorn_hls_publish_damaged_gops_total\{rendition="main"\} 0$/m);
    });
}

test('captions: every language has the segments of the video', async context => {
    const run = presentation('captions', {options: whole_window});
    context.after(() => run.publisher.kill());
    // The muxer begins 1.4 s behind the offset.
    const cues = join(run.directory, 'cues.vtt');
    const time = seconds => new Date(seconds * 1000).toISOString().slice(11, 23);
    let text = 'WEBVTT\n\n';
    for (let second = 2; second < 26; second += 3)
        text += `${time(second)} --> ${time(second + 2.5)}\ncue ${second}\n\n`;
    writeFileSync(cues, text);
    const program = new Program(run.source, {options: ['--start-pat-pmt'],
        command: [feeder, '--base-time', 10 * 90000, '--pace', 'none', '--captions', `eng=${cues}`, '--']});
    // The program takes a cue for each piece of its input.
    const bytes = stream();
    for (let at = 0; at < bytes.length; at += 188 * 100)
        await program.feed(bytes.subarray(at, at + 188 * 100));
    assert.equal(await program.end(), 0, program.errors);
    await watch_until(run.checker, 'subtitles', () => run.checker.master_text?.includes('TYPE=SUBTITLES') &&
        listed_seconds(run.checker) > 30);
    assert.deepEqual(run.checker.finish(), []);
    assert.match(run.checker.master_text, /TYPE=SUBTITLES,GROUP-ID="subtitles",NAME="English",LANGUAGE="en".*URI="main.sub-eng.m3u8"/);
    const published = readFileSync(join(run.output, 'main.sub-eng.m3u8'), 'utf8').split('\n')
        .filter(line => line.endsWith('.vtt')).map(uri => run.checker.bytes_of(uri).toString());
    assert.equal(published.length, run.checker.list().segments.length);
    const cues_in = texts => texts.join('').match(/^cue \d+$/gm);
    const source = cues_in(readdirSync(run.source).filter(name => name.endsWith('.eng.vtt'))
        .map(name => readFileSync(join(run.source, name), 'utf8')));
    assert.ok(source.length > 3);
    assert.deepEqual([...new Set(cues_in(published))].sort(), source.sort());
    // Segments of 4 s and cues of 2.5 s: some reach into the next.
    assert.ok(cues_in(published).length > source.length, published.join(''));
});

test('a GOP that is too long is split, and nothing says that it is independent', async context => {
    const run = presentation('long', {options: ['--window', 600, '--segment', 4]});
    context.after(() => run.publisher.kill());
    const program = new Program(run.source);
    await program.feed(stream({kind: 'long_gop', seconds: 45}));
    assert.equal(await program.end(), 0, program.errors);
    await watch_until(run.checker, 'what follows the first keyframe that is taken', () => listed_seconds(run.checker) > 24);
    assert.deepEqual(run.checker.finish(), []);
    assert.ok(!run.checker.list().independent);
    assert.match(run.publisher.errors, /no keyframe for 4 s; segments begin without one/);
});

// A TDT of ETSI EN 300 468, 5.2.5, as a packet.
function date_packet(unix_s) {
    const bcd = number => Math.floor(number / 10) << 4 | number % 10;
    const days = Math.floor(unix_s / 86400) + 40587;
    const packet = Buffer.alloc(188, 0xff);
    Buffer.from([0x47, 0x40, 0x14, 0x10, 0, 0x70, 0x70, 5, days >> 8, days & 0xff, bcd(Math.floor(unix_s / 3600) % 24),
        bcd(Math.floor(unix_s / 60) % 60), bcd(unix_s % 60)]).copy(packet);
    return packet;
}

// In seconds; null where the packet has none.
function pcr_of(packet) {
    const has_pcr = (packet[3] & 0x20) !== 0 && packet[4] >= 7 && (packet[5] & 0x10) !== 0;
    return has_pcr ? (packet.readUInt32BE(6) * 2 + (packet[10] >> 7)) / 90000 : null;
}

test('dates are those that the stream tells', async context => {
    const run = presentation('dates', {options: whole_window});
    context.after(() => run.publisher.kill());
    const begin = Date.UTC(2031, 4, 6, 23, 59, 40) / 1000; // when the clock showed 0
    const packets = [];
    let second = 0;
    for (const packet of packets_of(stream({seconds: 25}))) {
        packets.push(packet);
        const pcr = pcr_of(packet);
        if (pcr !== null && Math.floor(pcr) > second) {
            second = Math.floor(pcr);
            packets.push(date_packet(begin + second));
        }
    }
    const program = new Program(run.source);
    await program.feed(Buffer.concat(packets));
    assert.equal(await program.end(), 0, program.errors);
    await watch_until(run.checker, 'most of it', () => listed_seconds(run.checker) > 12);
    assert.deepEqual(run.checker.finish(), []);
    for (const {uri, date} of run.checker.list().segments) {
        const wanted = begin + read_segment(run.checker.bytes_of(uri)).pts / 90000;
        assert.ok(Math.abs(date / 1000 - wanted) < 0.2, `${uri}: ${new Date(date).toISOString()}, not ${wanted}`);
    }
});
