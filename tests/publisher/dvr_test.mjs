// A list to seek back in: segments in folders by hour, an EVENT, as many bytes as it may take, and what
// is recorded out of it.

import assert from 'node:assert/strict';
import {existsSync, mkdirSync, readFileSync, readdirSync, rmSync, statSync, writeFileSync} from 'node:fs';
import {join} from 'node:path';
import {test} from 'node:test';
import {media_packets, read_media} from './checker.mjs';
import {Program, Publisher, Recorder, ladder, listed_seconds, presentation, stream, wait_for, watch_until} from './runs.mjs';

const chunk_bytes = 188 * 1000;
const list_of = (directory, name) => read_media(readFileSync(join(directory, name), 'utf8'));
const packets_in = (directory, segments) =>
    media_packets(Buffer.concat(segments.map(({uri}) => readFileSync(join(directory, uri)))));
const folders_in = directory => readdirSync(directory).filter(name => /^\d{8}T\d{2}Z$/.test(name));
const files_below = directory => folders_in(directory).flatMap(folder => readdirSync(join(directory, folder)).map(file => `${folder}/${file}`));

function start(context, options, checker = {}) {
    const all = ['--segment', 2, '--iframes', ...options];
    const run = presentation('dvr', {options: all, checker: {folders: true, ...checker}});
    run.options = all;
    context.after(() => run.publisher.kill());
    run.program = new Program(run.source);
    context.after(() => run.program.kill());
    return run;
}

async function feed(run, bytes, between = () => run.checker.look()) {
    for (let at = 0; at < bytes.length; at += chunk_bytes) {
        await run.program.feed(bytes.subarray(at, at + chunk_bytes));
        await between();
    }
}

test('a day is kept in folders, over kills, a lost state, and the end', async context => {
    const run = start(context, ['--dvr', '24h', '--event']);
    const bytes = stream();
    const half = 188 * Math.floor(bytes.length / 376);
    await feed(run, bytes.subarray(0, half));
    await watch_until(run.checker, 'a beginning', () => listed_seconds(run.checker) > 8);
    await run.publisher.kill();
    run.checker.look();

    // What a step that was not finished may leave, in a folder of its own and beside others, and what is
    // not ours.
    const [folder] = folders_in(run.output);
    mkdirSync(join(run.output, '20200101T00Z'));
    const left_over = ['20200101T00Z/main.5.ts', `${folder}/.unfinished.main.7.ts`, `${folder}/main.7.ts`];
    for (const name of [...left_over, `${folder}/notes.txt`])
        writeFileSync(join(run.output, name), 'x');
    run.publisher.start();
    await wait_for('a clean directory', () => left_over.every(name => !existsSync(join(run.output, name))) &&
        !existsSync(join(run.output, '20200101T00Z')));
    await run.publisher.kill();
    for (const suffix of ['', '-wal', '-shm'])
        rmSync(join(run.output, `.index.m3u8.sqlite3${suffix}`), {force: true});
    run.publisher.start();
    await feed(run, bytes.subarray(half));
    await run.program.end();
    await watch_until(run.checker, 'all of it', () => listed_seconds(run.checker) > 38);
    assert.match(run.publisher.errors, /goes on from its playlists/);

    await run.publisher.kill('SIGTERM');
    const end = new Publisher(run.source, run.output, [...run.options, '--end']);
    assert.equal(await end.exited, 0, end.errors);
    assert.deepEqual(run.checker.finish(), []);
    const list = run.checker.list();
    assert.ok(list.ended && list.event);
    assert.deepEqual(list.segments.filter(({discontinuity}) => discontinuity), []);
    const packets = packets_in(run.output, list.segments);
    const at = media_packets(bytes).indexOf(packets);
    assert.ok(at >= 0 && at % 188 === 0, 'the packets of the encoder, none missing, none twice');
    assert.deepEqual(files_below(run.output).sort(), [...list.segments.map(({uri}) => uri), `${folder}/notes.txt`].sort());
});

test('it takes no more bytes than it may: the oldest leave, and it is told once', async context => {
    const most_bytes = 5000000;
    const run = start(context, ['--dvr', '1h', '--event', '--dvr-bytes', '5M'], {most_bytes});
    let begin;
    await feed(run, stream({seconds: 60}), () => {
        run.checker.look();
        if (run.checker.media_texts.size > 0)
            begin ??= run.checker.list().segments[0].date;
    });
    await run.program.end();
    const sizes = () => files_below(run.output).map(name => statSync(join(run.output, name)).size).reduce((a, b) => a + b, 0);
    await watch_until(run.checker, 'the end', () =>
        run.checker.list().segments.at(-1).date - begin > 50000 && sizes() <= most_bytes);
    assert.deepEqual(run.checker.finish(), []);
    assert.ok(!run.checker.list().event, 'segments have left it');
    assert.ok(listed_seconds(run.checker) >= 6 && listed_seconds(run.checker) < 30, `${listed_seconds(run.checker)} s`);
    assert.equal(run.publisher.errors.match(/5000000 bytes are full with \d+ s listed, and 3600 s are wanted; the oldest segments leave/g).length, 1);
});

test('a ladder with lists of keyframes is recorded out of folders, whole', async context => {
    const names = ['high', 'low'];
    const run = ladder(names, {settings: 'segment = 2\ndvr = "24h"\nevent = true\niframes = true\n', checker: {folders: true}});
    context.after(() => run.publisher.kill());
    run.programs = run.sources.map(source => new Program(source, {name: 'first'}));
    context.after(() => Promise.all(run.programs.map(program => program.kill())));
    const streams = ['640x360', '320x180'].map(size => stream({seconds: 40, size}));
    const to = join(run.directory, 'recorded');
    let recorder;
    for (let at = 0; at < streams[0].length; at += chunk_bytes) {
        await Promise.all(run.programs.map((program, i) => program.feed(streams[i].subarray(at, at + chunk_bytes))));
        run.checker.look();
        if (!recorder && run.checker.media_texts.size > 1)
            recorder = new Recorder(context, run.output, to, ['--begin', '2020-01-01T00:00:00Z'], 'high');
    }
    await Promise.all(run.programs.map(program => program.end()));
    await watch_until(run.checker, 'all of it', () => listed_seconds(run.checker) > 32);
    await run.publisher.kill('SIGTERM'); // so that nothing more is listed
    await watch_until(run.checker, 'all segments', () => recorder.taken().length === run.checker.list().segments.length);
    assert.equal(await recorder.kill('SIGTERM'), 0, recorder.errors);
    assert.deepEqual(run.checker.finish(), []);
    for (const name of names.flatMap(name => [`${name}.m3u8`, `${name}.iframes.m3u8`])) {
        const text = readFileSync(join(to, name), 'utf8');
        const [recorded, live] = [to, run.output].map(directory => list_of(directory, name));
        assert.deepEqual(recorded.segments.map(({uri, begin, bytes}) => [uri, begin, bytes]),
            live.segments.map(({uri, begin, bytes}) => [uri, begin, bytes]), name);
        assert.ok(recorded.ended && !recorded.event && text.includes('#EXT-X-PLAYLIST-TYPE:VOD\n'), text);
        assert.ok(packets_in(to, recorded.segments).equals(packets_in(run.output, recorded.segments)));
    }
    assert.deepEqual(readdirSync(to).filter(name => name.endsWith('.m3u8')).sort(),
        ['index.m3u8', ...names.flatMap(name => [`${name}.m3u8`, `${name}.iframes.m3u8`])].sort());
    assert.deepEqual(readdirSync(to).filter(name => name.startsWith('.')), []);
});
