// Rungs of one programme, published as one presentation: the same segments in all, and a rung that is
// away costs the others nothing.

import assert from 'node:assert/strict';
import {writeFileSync} from 'node:fs';
import {join} from 'node:path';
import {test} from 'node:test';
import {media_packets, read_media} from './checker.mjs';
import {Program, feeder, ladder, scratch_directory, stream, watch_until} from './runs.mjs';

const names = ['high', 'low'];
const sizes = ['640x360', '320x180'];
const settings = 'segment = 2\nwindow = 600\n';
const chunk_bytes = 188 * 700; // half a second

const all_seconds = 60;
const streams = sizes.map(size => stream({seconds: all_seconds, size}));
const part_of = (bytes, from, to) => {
    const packet_at = second => Math.floor(bytes.length / 188 * second / all_seconds) * 188;
    return bytes.subarray(packet_at(from), packet_at(to));
};
const list_of = (run, name) => read_media(run.checker.media_texts.get(`${name}.m3u8`));
const variants = run => [...run.checker.master_text.matchAll(/^(\w+)\.m3u8$/gm)].map(([, name]) => name);

function start(context, {program = {}, ...options} = {}) {
    const run = ladder(names, {settings, ...options});
    context.after(() => run.publisher.kill());
    run.programs = run.sources.map(source => new Program(source, {name: 'first', ...program}));
    context.after(() => Promise.all(run.programs.map(program => program.kill())));
    return run;
}

// Gives all programs their streams side by side, none getting far ahead.
async function feed(run, bytes, between = () => {}) {
    for (let at = 0; at < bytes[0].length; at += chunk_bytes) {
        await Promise.all(run.programs.map((program, i) => program.feed(bytes[i].subarray(at, at + chunk_bytes))));
        await between(at / bytes[0].length);
    }
}

const end = run => Promise.all(run.programs.map(program => program.end()));

function published(run, name) {
    return media_packets(Buffer.concat(list_of(run, name).segments.map(({uri}) => run.checker.bytes_of(uri))));
}

// What the encoder gave, from the first packet that is published, is published, packet by packet.
function require_stretch_of(run, name, bytes, seconds) {
    const want = media_packets(bytes);
    const got = published(run, name);
    const begin = want.indexOf(got.subarray(0, 188 * 20));
    assert.ok(begin >= 0 && begin % 188 === 0, `${name} begins with packets of the encoder`);
    assert.ok(got.equals(want.subarray(begin, begin + got.length)), `${name}: nothing is missing, doubled or changed`);
    assert.ok(list_of(run, name).duration > seconds, `${list_of(run, name).duration} s are published`);
}

test('all rungs have the same segments, and the master has them in their order', async context => {
    const run = start(context, {settings: `${settings}iframes = true\n`});
    await feed(run, streams, () => run.checker.look());
    await end(run);
    await watch_until(run.checker, 'the whole stream', () => run.checker.list().duration > 50);
    assert.deepEqual(run.checker.finish(), []);
    assert.deepEqual(variants(run), names);
    assert.deepEqual([...run.checker.iframes_texts.keys()].sort(), names.map(name => `${name}.iframes.m3u8`));
    assert.deepEqual(run.checker.variants.map(({resolution}) => `${resolution.width}x${resolution.height}`), sizes);
    names.forEach((name, i) => require_stretch_of(run, name, streams[i], 50));
    assert.deepEqual(list_of(run, 'high').segments.map(({sequence}) => sequence), list_of(run, 'low').segments.map(({sequence}) => sequence));
    const {text} = await run.publisher.ask('/metrics');
    for (const name of names)
        assert.match(text, new RegExp(`^vorn_hls_publish_rendition_listed\\{rendition="${name}"\\} 1$`, 'm'));
    assert.equal(text.match(/^# HELP vorn_hls_publish_segments_total /gm).length, 1);
});

for (const [name, leave, come_back] of [
    ['dies', program => program.kill(), (run, i) => run.programs[i] = new Program(run.sources[i], {name: 'second'})],
    ['stands still', program => program.child.kill('SIGSTOP'), (run, i) => run.programs[i].child.kill('SIGCONT')],
]) {
    test(`a rung that ${name} leaves the master and comes back, and the other goes on`, async context => {
        const run = start(context);
        let state = 'there';
        await feed(run, streams, async part => {
            run.checker.look();
            if (state === 'there' && part > 0.35 && run.checker.variants?.length === 2) {
                state = 'leaving';
                await leave(run.programs[1]);
                run.programs[1].feed = () => {}; // what comes is lost, as on a network
            } else if (state === 'leaving' && part > 0.5) {
                await watch_until(run.checker, 'it is out', () => variants(run).join() === 'high');
                assert.ok(!run.checker.media_texts.has('low.m3u8'));
                state = 'away';
                delete run.programs[1].feed;
                await come_back(run, 1);
            }
        });
        await end(run);
        await watch_until(run.checker, 'it is back', () => variants(run).length === 2);
        await watch_until(run.checker, 'the whole stream', () => list_of(run, 'high').duration > 45);
        assert.deepEqual(run.checker.finish(), []);
        assert.deepEqual(variants(run), names);
        require_stretch_of(run, 'high', streams[0], 45);
        assert.equal(list_of(run, 'high').segments.filter(({discontinuity}) => discontinuity).length, 0);
        assert.ok(list_of(run, 'low').sequence > list_of(run, 'high').sequence);
        assert.match(run.publisher.errors, /low: it has fallen behind or delivers nothing; it is taken out of index.m3u8\nlow: it is in index.m3u8 again\n$/);
    });
}

test('sound and subtitles are there once for all; a jump of all is one discontinuity, at the same number in each', async context => {
    // In the middle of a group, so that its sound is there too.
    const before = streams.map(bytes => part_of(bytes, 0, 24.5));
    const after = sizes.map(size => stream({seconds: 25, offset: 710, size}));
    const cues = join(scratch_directory('cues'), 'cues.vtt');
    writeFileSync(cues, 'WEBVTT\n\n00:00:12.000 --> 00:00:14.000\nwords\n\n');
    const run = start(context, {program: {options: ['--separate-streams', '--sap', '--start-pat-pmt'],
        command: [feeder, '--base-time', 10 * 90000, '--pace', 'none', '--captions', `eng=${cues}`, '--']}});
    await feed(run, before, () => run.checker.look());
    await feed(run, after, () => run.checker.look());
    await end(run);
    await watch_until(run.checker, 'both', () => run.checker.list().duration > 40);
    assert.deepEqual(run.checker.finish(), []);
    const shared = ['high.audio.m3u8', 'high.sap.m3u8', 'high.sub-eng.m3u8'];
    assert.deepEqual([...run.checker.media_texts.keys()].sort(), [...shared, 'high.m3u8', 'low.m3u8'].sort());
    for (const name of shared)
        assert.ok(run.checker.master_text.includes(`URI="${name}"`), name);
    for (const {audio, subtitles} of run.checker.variants)
        assert.deepEqual([audio.length, subtitles.length], [2, 1]);
    const jumps = names.map(name => list_of(run, name).segments.filter(({discontinuity}) => discontinuity).map(({sequence}) => sequence));
    assert.equal(jumps[0].length, 1);
    assert.deepEqual(jumps[0], jumps[1]);
});

test('a rung whose keyframes are elsewhere is told, and left out', async context => {
    const other = stream({seconds: 30, size: '160x90', offset: 10.4});
    const run = start(context);
    await feed(run, [part_of(streams[0], 0, 30), other]);
    await end(run);
    await watch_until(run.checker, 'the whole stream', () => run.checker.list().duration > 20);
    assert.deepEqual(run.checker.finish(), []);
    assert.deepEqual(variants(run), ['high']);
    assert.match(run.publisher.errors, /^low: its keyframes are not where the other renditions have theirs; /m);
});

test('a publisher that is killed goes on with all rungs', async context => {
    const run = start(context);
    let steps = 0;
    await feed(run, streams, async () => {
        run.checker.look();
        if (++steps % 20 !== 0)
            return;
        await run.publisher.kill();
        run.checker.look();
        run.publisher.start();
    });
    await end(run);
    await watch_until(run.checker, 'the whole stream', () => run.checker.list().duration > 45);
    assert.deepEqual(run.checker.finish(), []);
    names.forEach((name, i) => require_stretch_of(run, name, streams[i], 45));
});
