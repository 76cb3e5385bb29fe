// A programme recorded out of a presentation that goes on.

import assert from 'node:assert/strict';
import {execFileSync} from 'node:child_process';
import {createRequire} from 'node:module';
import {existsSync, readFileSync, readdirSync} from 'node:fs';
import {join} from 'node:path';
import {test} from 'node:test';
import {media_packets, read_media} from './checker.mjs';
import {Program, Recorder, listed_seconds, presentation, stream, wait_for, watch_until} from './runs.mjs';

const HLS = createRequire(new URL('../players/package.json', import.meta.url))('hls-parser');

const date_text = date => new Date(date).toISOString().replace(/\.\d+/, '');

// The packets of a list's segments, one behind another.
function packets_in(directory, segments) {
    return media_packets(Buffer.concat(segments.map(({uri}) => readFileSync(join(directory, uri)))));
}

test('a programme is recorded between two times, over a kill, while the presentation goes on', async context => {
    const run = presentation('record', {options: ['--window', 12, '--segment', 2]});
    context.after(() => run.publisher.kill());
    const program = new Program(run.source);
    context.after(() => program.kill());
    const bytes = stream();
    // The program holds back what it looks ahead: 6 s of this stream.
    const places = [0, 0.4, 0.6, 0.8, 1].map(share => 188 * Math.floor(bytes.length / 188 * share));
    const part = n => bytes.subarray(places[n], places[n + 1]);
    await program.feed(part(0));
    await watch_until(run.checker, 'a beginning', () => listed_seconds(run.checker) > 4);

    // From the middle of the second segment on, for 16 s.
    const {segments} = run.checker.list();
    const begin = Math.floor((segments[1].date + 500) / 1000) * 1000;
    const end = begin + 16000;
    const to = join(run.directory, 'recorded');
    const options = ['--begin', date_text(begin), '--end', date_text(end)];
    let recorder = new Recorder(context, run.output, to, options);
    await wait_for('the first segments', () => recorder.taken().length >= 1);
    assert.equal(await recorder.kill('SIGKILL'), 'SIGKILL');
    assert.ok(!existsSync(join(to, 'index.m3u8')));
    await program.feed(part(1));
    recorder = new Recorder(context, run.output, to, options);
    for (const n of [2, 3]) {
        const count = recorder.taken().length;
        await program.feed(part(n));
        await watch_until(run.checker, 'the recording goes on', () => recorder.taken().length > count || existsSync(join(to, 'index.m3u8')));
    }
    await program.end();
    assert.equal(await recorder.exited, 0, recorder.errors);
    assert.equal(recorder.errors, '');

    const list = read_media(readFileSync(join(to, 'main.m3u8'), 'utf8'));
    assert.ok(list.ended);
    assert.ok(list.segments[0].date <= begin && list.segments[1].date > begin);
    const last = list.segments.at(-1);
    assert.ok(last.date < end && last.date + last.duration * 1000 >= end);
    assert.ok(list.segments.every(({discontinuity}) => !discontinuity));
    assert.deepEqual(readdirSync(to).sort(),
        ['index.m3u8', 'main.m3u8', ...list.segments.map(({uri}) => uri)].sort());

    // Strict parsers, and the encoder's own packets in a row.
    assert.ok(HLS.parse(readFileSync(join(to, 'index.m3u8'), 'utf8')).isMasterPlaylist);
    assert.equal(HLS.parse(readFileSync(join(to, 'main.m3u8'), 'utf8')).playlistType, 'VOD');
    const packets = packets_in(to, list.segments);
    const at = media_packets(bytes).indexOf(packets);
    assert.ok(at > 0 && at % 188 === 0, 'the packets of the encoder, none missing, none twice');
    const measured = JSON.parse(execFileSync('ffprobe', ['-v', 'error', '-count_packets', '-select_streams', 'v',
        '-show_entries', 'stream=nb_read_packets', '-of', 'json', join(to, 'index.m3u8')]));
    assert.equal(Number(measured.streams[0].nb_read_packets), Math.round(list.duration * 25));
});

test('stopped by a signal, it ends with what is listed', async context => {
    const run = presentation('record', {options: ['--window', 60, '--segment', 2]});
    context.after(() => run.publisher.kill());
    const program = new Program(run.source, {options: ['--separate-streams', '--start-pat-pmt', '--sap']});
    await program.feed(stream());
    await program.end();
    await watch_until(run.checker, 'the whole stream', () => listed_seconds(run.checker) > 31);
    const to = join(run.directory, 'recorded');
    const recorder = new Recorder(context, run.output, to, ['--begin', '1999-12-31T23:00:00+01:00']);
    await run.publisher.kill('SIGTERM'); // so that nothing more is listed
    await watch_until(run.checker, 'all segments', () => recorder.taken().length === run.checker.list().segments.length);
    assert.equal(await recorder.kill('SIGTERM'), 0, recorder.errors);
    for (const name of ['main.m3u8', 'main.audio.m3u8', 'main.sap.m3u8']) {
        const recorded = read_media(readFileSync(join(to, name), 'utf8'));
        assert.deepEqual(recorded.segments.map(({uri}) => uri),
            read_media(readFileSync(join(run.output, name), 'utf8')).segments.map(({uri}) => uri));
        assert.ok(packets_in(to, recorded.segments).equals(packets_in(run.output, recorded.segments)));
    }
});

test('what cannot be recorded is refused with a reason', async context => {
    const run = presentation('record');
    context.after(() => run.publisher.kill());
    for (const [options, reason, status] of [
        [['--begin', 'noon'], /'noon' is no time like 2026-11-21T20:15:00Z/, 64],
        [['--begin', '2026-11-21T20:15:00Z', '--end', '2026-11-21T20:15:00Z'], /the end is before the beginning/, 64],
        [['--end', '2000-01-01T00:00:00Z'], /names no playlist/, 1],
    ]) {
        const recorder = new Recorder(context, run.output, join(run.directory, 'recorded'), options);
        await wait_for('a reason', () => reason.test(recorder.errors));
        if (status !== 64) // it waits for a presentation; what is no use ends it by itself
            recorder.child.kill('SIGTERM');
        assert.equal(await recorder.exited, status);
    }
});
