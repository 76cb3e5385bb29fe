// What ends, jumps or is killed, and how the presentation goes on.

import assert from 'node:assert/strict';
import {existsSync, readFileSync, readdirSync, rmSync, statSync, truncateSync, writeFileSync} from 'node:fs';
import {join} from 'node:path';
import {test} from 'node:test';
import {setTimeout as sleep} from 'node:timers/promises';
import {media_packets} from './checker.mjs';
import {packets_of, pid_of} from './segment.mjs';
import {Program, Publisher, dice, listed_seconds, presentation, stream, wait_for, watch_until} from './runs.mjs';

const whole_window = ['--window', 600, '--segment', 4, '--iframes', '--listen', '127.0.0.1:0'];
const chunk_bytes = 188 * 1000;

function start(context, name, options = whole_window) {
    const run = presentation(name, {options});
    context.after(() => run.publisher.kill());
    return run;
}

async function feed(program, bytes, between = () => {}) {
    for (let at = 0; at < bytes.length; at += chunk_bytes) {
        await program.feed(bytes.subarray(at, at + chunk_bytes));
        await between();
    }
}

const discontinuities = run => run.checker.list().segments.filter(({discontinuity}) => discontinuity).length;

function published(run) {
    return media_packets(Buffer.concat(run.checker.list().segments.map(({uri}) => run.checker.bytes_of(uri))));
}

// Up to its last picture, where that was being written when its program was killed or had no more input:
// stuffing would end a whole one.
function without_torn_picture(fragment) {
    const packets = [...packets_of(fragment)];
    const is_video = packet => pid_of(packet) === 0x100; // ffmpeg's first
    const begins_picture = packet => is_video(packet) && (packet[1] & 0x40) !== 0;
    const ends_picture = (packets.findLast(is_video)[3] & 0x20) !== 0;
    return ends_picture ? fragment : Buffer.concat(packets.slice(0, packets.findLastIndex(begins_picture)));
}

function source_bytes(run) {
    const names = readdirSync(run.source).filter(name => /^\w+\.\d{8}\.ts$/.test(name)).sort();
    const run_of = name => name?.split('.')[0];
    return media_packets(Buffer.concat(names.map((name, i) => {
        const fragment = readFileSync(join(run.source, name));
        return run_of(name) === run_of(names[i + 1]) ? fragment : without_torn_picture(fragment);
    })));
}

// Until every whole packet of every fragment is published, but for a picture that is torn.
const watch_all = run => watch_until(run.checker, 'all that the source has', () => published(run).equals(source_bytes(run)));

test('a program that was killed and started again costs one discontinuity', async context => {
    const run = start(context, 'restart');
    const bytes = stream();
    const first = new Program(run.source, {name: 'first'});
    await feed(first, bytes.subarray(0, bytes.length * 0.7 - bytes.length * 0.7 % 188));
    await watch_until(run.checker, 'the first run', () => listed_seconds(run.checker) > 12);
    await first.kill();
    const second = new Program(run.source, {name: 'second'});
    await feed(second, bytes.subarray(bytes.length * 0.3 - bytes.length * 0.3 % 188));
    await second.end();
    await watch_until(run.checker, 'the second run', () => discontinuities(run) > 0 && listed_seconds(run.checker) > 40);
    assert.deepEqual(run.checker.finish(), []);
    assert.equal(discontinuities(run), 1);
    assert.match((await run.publisher.ask('/metrics')).text, /source_runs_total\{rendition="main"\} 2/);
});

test('the last fragment of a run that died is published before another run begins', async context => {
    const run = start(context, 'salvage');
    const bytes = stream();
    const program = new Program(run.source);
    await feed(program, bytes.subarray(0, 188 * 30000));
    await wait_for('fragments', () => program.fragments().length > 5);
    await program.kill();
    await watch_all(run);
    assert.deepEqual(run.checker.finish(), []);
});

// With VORN_KILLS in the environment, so many, far enough apart for lists to come in between, and with a
// short list that segments leave.
test('a publisher killed at any instant goes on: nothing is lost, doubled, or numbered anew', async context => {
    const by_hand = Number(process.env.VORN_KILLS ?? 0);
    const wanted = by_hand || 80;
    const run = start(context, 'kills', by_hand ? ['--window', 12, '--segment', 1] : whole_window);
    const random = dice(7);
    const bytes = stream({seconds: by_hand ? 240 : 60});
    const piece = Math.floor(bytes.length / 188 / wanted) * 188;
    const contents = new Map(); // by name of the segment
    const look = () => {
        run.checker.look();
        for (const {uri} of run.checker.media_texts.size > 0 ? run.checker.list().segments : []) {
            if (!contents.has(uri))
                contents.set(uri, media_packets(run.checker.bytes_of(uri)));
        }
    };
    let kills = 0;
    const program = new Program(run.source);
    for (let at = 0; at < bytes.length; at += piece) {
        await program.feed(bytes.subarray(at, at + piece));
        look();
        await sleep(by_hand ? random() ** 2 * 500 : random() * 60); // the instant
        await run.publisher.kill();
        look();
        kills++;
        run.publisher.start();
    }
    await program.end();
    await wait_for('all that the source has', () => {
        look();
        return Buffer.concat([...contents.values()]).equals(source_bytes(run));
    });
    assert.deepEqual(run.checker.finish(), []);
    assert.deepEqual([...contents.keys()], [...contents.keys()].sort());
    assert.equal(discontinuities(run), 0);
    assert.equal(run.publisher.errors.replace(/listening on port \d+\n/g, ''), '');
    context.diagnostic(`${kills} kills, ${run.checker.versions} lists, ${contents.size} segments`);
    const known = new Set(run.checker.seen.keys());
    assert.deepEqual(readdirSync(run.output).filter(name => name.endsWith('.ts') && !known.has(name)), [], 'left over');
});

test('the clock of the stream begins anew without a discontinuity', async context => {
    const run = start(context, 'wrap');
    const program = new Program(run.source);
    // 2^33 ticks are 95443.717 s.
    await feed(program, stream({offset: 95443.717 - 20}));
    await program.end();
    await watch_all(run);
    assert.deepEqual(run.checker.finish(), []);
    assert.equal(discontinuities(run), 0);
    assert.ok(listed_seconds(run.checker) > 35);
});

for (const [name, second, seconds] of [
    ['ahead', {offset: 710}, 45],
    ['back', {offset: 5}, 45],
    ['to another picture size', {offset: 35, size: '640x360'}, 45],
]) {
    test(`time or format jumps ${name}: a discontinuity, and nothing is missing`, async context => {
        const run = start(context, 'jump');
        const program = new Program(run.source);
        await feed(program, stream({seconds: 25, offset: 10}));
        await feed(program, stream({seconds: 25, ...second}));
        await program.end();
        await watch_until(run.checker, 'both', () => discontinuities(run) > 0 && listed_seconds(run.checker) > seconds);
        await watch_all(run);
        assert.deepEqual(run.checker.finish(), []);
        assert.equal(discontinuities(run), 1);
    });
}

test('a track that ends leaves the master, and its list goes; when it comes back, so does that', async context => {
    const run = start(context, 'track');
    const sap_list = join(run.output, 'main.sap.m3u8');
    const options = ['--separate-streams', '--start-pat-pmt'];
    let seconds = 0;
    for (const [name, more, offset] of [['first', ['--sap'], 10], ['second', [], 100], ['third', ['--sap'], 200]]) {
        const program = new Program(run.source, {name, options: [...options, ...more]});
        await program.feed(stream({offset}));
        await program.end();
        seconds += 30;
        await watch_until(run.checker, `the ${name} run`, ({master_text}) => listed_seconds(run.checker) > seconds &&
            master_text?.includes('main.sap.m3u8') === more.includes('--sap') && existsSync(sap_list) === more.includes('--sap'));
    }
    assert.deepEqual(run.checker.finish(), []);
    assert.equal(discontinuities(run), 2);
});

test('a sound that falls silent leaves the master, and its list goes; when it sounds again, it is back', async context => {
    const run = start(context, 'silence');
    const bytes = stream();
    const third = Math.floor(bytes.length / 188 / 3) * 188;
    const spanish_pid = 0x102; // the third stream of ffmpeg's muxer
    const program = new Program(run.source, {options: ['--separate-streams', '--start-pat-pmt', '--sap']});
    const until_listed = async (what, is_listed) => watch_until(run.checker, what, ({master_text, media_texts}) =>
        is_listed === master_text?.includes('main.sap.m3u8') && is_listed === media_texts.has('main.sap.m3u8'));
    await feed(program, bytes.subarray(0, third));
    await until_listed('both sounds', true);
    const middle = [...packets_of(bytes.subarray(third, 2 * third))];
    await feed(program, Buffer.concat(middle.filter(packet => pid_of(packet) !== spanish_pid)));
    await until_listed('one sound', false);
    await feed(program, bytes.subarray(2 * third));
    await program.end();
    await until_listed('both again', true);
    await watch_until(run.checker, 'all', () => listed_seconds(run.checker) > 34);
    assert.deepEqual(run.checker.finish(), []);
    assert.equal(discontinuities(run), 2);
});

test('segments leave the list, stay for their time, and go', async context => {
    const run = start(context, 'window', ['--window', 3, '--segment', 1, '--iframes']);
    const program = new Program(run.source);
    await feed(program, stream({seconds: 20}));
    await program.end();
    // All of it comes at once, so that the list is up to twice as long as its window.
    await watch_until(run.checker, 'the end of the list', () => listed_seconds(run.checker) < 8 &&
        run.checker.list().segments.length > 2);
    await watch_until(run.checker, 'removals', ({seen}) => seen.size <= run.checker.list().segments.length);
    assert.deepEqual(run.checker.finish(), []);
});

test('a publisher that was away goes on where it was', async context => {
    const run = start(context, 'away');
    const program = new Program(run.source);
    const bytes = stream();
    await feed(program, bytes.subarray(0, 188 * 25000));
    await watch_until(run.checker, 'a beginning', () => listed_seconds(run.checker) > 8);
    assert.equal(await run.publisher.kill('SIGTERM'), 0);
    await feed(program, bytes.subarray(188 * 25000));
    await program.end();
    run.publisher.start();
    await watch_all(run);
    assert.deepEqual(run.checker.finish(), []);
    assert.equal(discontinuities(run), 0);
});

test('runs that came and went while the publisher was away are published, each once', async context => {
    const run = start(context, 'runs');
    const bytes = stream();
    const first = new Program(run.source, {name: 'first'});
    await feed(first, bytes.subarray(0, 188 * 25000));
    await watch_until(run.checker, 'a beginning', () => listed_seconds(run.checker) > 8);
    await run.publisher.kill();
    await first.end();
    for (const name of ['second', 'third']) {
        const program = new Program(run.source, {name});
        await feed(program, bytes.subarray(0, 188 * 15000));
        await program.end();
    }
    run.publisher.start();
    await watch_all(run);
    assert.deepEqual(run.checker.finish(), []);
    assert.equal(discontinuities(run), 2);
});

for (const [name, damage, told] of [
    ['lost', path => rmSync(path), /is new; the presentation goes on from its playlists/],
    ['damaged', path => writeFileSync(path, Buffer.alloc(8192, 'x')), /is damaged \(.*\) and is kept as .*\.damaged-1\n.*goes on from its playlists/],
]) {
    test(`a state that is ${name}: the presentation goes on from its playlists`, async context => {
        const run = start(context, 'state');
        const program = new Program(run.source);
        const bytes = stream();
        await feed(program, bytes.subarray(0, 188 * 25000));
        await watch_until(run.checker, 'a beginning', () => listed_seconds(run.checker) > 8);
        await run.publisher.kill();
        for (const suffix of ['-wal', '-shm'])
            rmSync(join(run.output, `.index.m3u8.sqlite3${suffix}`), {force: true});
        damage(join(run.output, '.index.m3u8.sqlite3'));
        run.publisher.start();
        await feed(program, bytes.subarray(188 * 25000));
        await program.end();
        await watch_all(run);
        assert.match(run.publisher.errors, told);
        assert.deepEqual(run.checker.finish(), []);
        assert.equal(discontinuities(run), 0);
    });
}

test('a second publisher, another target duration and a newer state are refused', async context => {
    const run = start(context, 'refused');
    await wait_for('the state', () => run.publisher.errors.includes('listening'));
    const second = new Publisher(run.source, run.output, whole_window);
    assert.equal(await second.exited, 78);
    assert.match(second.errors, /another process has it open/);
    const program = new Program(run.source);
    await feed(program, stream({seconds: 20}));
    await watch_until(run.checker, 'segments', () => listed_seconds(run.checker) > 4);
    await program.kill();
    await run.publisher.kill('SIGTERM');
    const other = new Publisher(run.source, run.output, ['--segment', 2]);
    assert.equal(await other.exited, 78);
    assert.match(other.errors, /its target duration is 4 s and not 2 s, and it never changes/);
});

test('--end closes the presentation for good', async context => {
    const run = start(context, 'end');
    const program = new Program(run.source);
    await feed(program, stream({seconds: 20}));
    await watch_until(run.checker, 'segments', () => listed_seconds(run.checker) > 4);
    await program.kill();
    await run.publisher.kill('SIGTERM');
    const end = new Publisher(run.source, run.output, [...whole_window, '--end']);
    assert.equal(await end.exited, 0, end.errors);
    run.checker.look();
    assert.ok(run.checker.list().ended);
    const again = new Publisher(run.source, run.output, whole_window);
    assert.equal(await again.exited, 78);
    assert.match(again.errors, /this presentation has ended/);
});

test('names that are used again are told, and not published', async context => {
    const run = start(context, 'names');
    const first = new Program(run.source, {name: 'same'});
    await feed(first, stream());
    await watch_until(run.checker, 'the first run', () => listed_seconds(run.checker) > 20);
    await first.kill();
    const second = new Program(run.source, {name: 'same'});
    await feed(second, stream({offset: 500}));
    await wait_for('the complaint', () => run.publisher.errors.includes('written over by another run'));
    assert.equal((await run.publisher.ask('/healthz')).status, 503);
    await second.kill();
    const third = new Program(run.source, {name: 'other'});
    await feed(third, stream({offset: 500}));
    await watch_until(run.checker, 'the third run', () => discontinuities(run) > 0);
    await third.kill();
    assert.equal((await run.publisher.ask('/healthz')).status, 200);
});

test('a list of whose segments one was torn by a power cut stays whole', async context => {
    const run = start(context, 'power');
    const program = new Program(run.source);
    await feed(program, stream());
    await watch_until(run.checker, 'segments', () => run.checker.list().segments.length > 5);
    await program.kill();
    await run.publisher.kill();
    run.checker.look();
    const {segments} = run.checker.list();
    const torn = join(run.output, segments[1].uri);
    const {size} = statSync(torn);
    truncateSync(torn, 100);
    run.publisher.start();
    await wait_for('the whole segment', () => statSync(torn).size === size);
    await wait_for('a start', () => run.publisher.errors.match(/listening/g)?.length === 2);
    assert.match(run.publisher.errors, /segment \d+ is not there whole; the rest is filled up/);
    assert.ok(readFileSync(join(run.output, 'main.m3u8'), 'utf8').includes(`MEDIA-SEQUENCE:${segments[0].sequence}\n`));
});
