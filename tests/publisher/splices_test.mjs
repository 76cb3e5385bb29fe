// Splices of the programme, ANSI/SCTE 35, become date ranges of every list, and segments end there.

import assert from 'node:assert/strict';
import {readFileSync, rmSync, statSync} from 'node:fs';
import {join} from 'node:path';
import {test} from 'node:test';
import {packets_of, read_segment} from './segment.mjs';
import {Program, ladder, listed_seconds, presentation, stream, wait_for, watch_until} from './runs.mjs';

const splice_pid = 0x1fc;
const pmt_pid = 0x1000; // ffmpeg's

function with_crc(bytes) {
    let crc = 0xffffffff;
    for (const byte of bytes) {
        crc ^= byte << 24;
        for (let bit = 0; bit < 8; bit++)
            crc = crc << 1 ^ (crc < 0 ? 0x04c11db7 : 0);
    }
    const end = Buffer.alloc(4);
    end.writeInt32BE(crc | 0);
    return Buffer.concat([bytes, end]);
}

function packet_of(pid, counter, section) {
    const packet = Buffer.alloc(188, 0xff);
    Buffer.from([0x47, 0x40 | pid >> 8, pid & 0xff, 0x10 | counter & 15, 0]).copy(packet);
    section.copy(packet, 5);
    return packet;
}

// The same PMT, with the splices' stream in it.
function with_splices(packet) {
    const length = (packet[6] & 15) << 8 | packet[7];
    const entry = [0x86, 0xe0 | splice_pid >> 8, splice_pid & 0xff, 0xf0, 0];
    const section = Buffer.concat([packet.subarray(5, 5 + 3 + length - 4), Buffer.from(entry)]);
    section[2] = length + entry.length;
    return packet_of(pmt_pid, packet[3], with_crc(section));
}

const ticks_bytes = (ticks, flags) => [flags | Math.floor(ticks / 2 ** 32), ...[24, 16, 8, 0].map(shift => Math.floor(ticks / 2 ** shift) & 0xff)];

// Without `seconds`, at once.
function splice_insert(event, out, {seconds, duration = 0, auto_return = false}) {
    const flags = (out ? 0x80 : 0) | 0x40 | (duration ? 0x20 : 0) | (seconds ? 0 : 0x10) | 0x0f;
    const command = [0, 0, 0, event, 0x7f, flags, ...(seconds ? ticks_bytes(seconds * 90000, 0xfe) : []),
        ...(duration ? ticks_bytes(duration * 90000, auto_return ? 0xfe : 0x7e) : []), 0, 1, 0, 0];
    const body = [0, 0, 0, 0, 0, 0, 0, 0xff, 0xf0, command.length, 5, ...command, 0, 0];
    return with_crc(Buffer.from([0xfc, 0x30, body.length + 4, ...body]));
}

// In seconds; null where the packet has none.
function pcr_of(packet) {
    const has_pcr = (packet[3] & 0x20) !== 0 && packet[4] >= 7 && (packet[5] & 0x10) !== 0;
    return has_pcr ? (packet.readUInt32BE(6) * 2 + (packet[10] >> 7)) / 90000 : null;
}

// `splices` are {at, section} in seconds of the stream's clock: each is sent three times from then on.
// `told`: in the PMT.
function programme(seconds, splices, {size = '320x180', told = true} = {}) {
    const sent = splices.flatMap(({at, section}) => [0, 0.5, 1].map(later => ({at: at + later, section})))
        .sort((a, b) => a.at - b.at);
    const packets = [];
    let counter = 0;
    for (const packet of packets_of(stream({seconds, size}))) {
        const pid = (packet[1] & 0x1f) << 8 | packet[2];
        packets.push(pid === pmt_pid && told ? with_splices(packet) : packet);
        const pcr = pcr_of(packet);
        while (pcr !== null && sent.length > 0 && sent[0].at <= pcr)
            packets.push(packet_of(splice_pid, counter++, sent.shift().section));
    }
    return Buffer.concat(packets);
}

const ranges_of = text => text.match(/^#EXT-X-DATERANGE:.*$/gm) ?? [];
const list_text = (run, name = 'main') => readFileSync(join(run.output, `${name}.m3u8`), 'utf8');

// The clock, in seconds, at the beginning of each segment, and the date of any clock.
function timeline(run) {
    const {segments} = run.checker.list();
    const clocks = segments.map(({uri}) => read_segment(run.checker.bytes_of(uri)).pts / 90000);
    return {clocks, date_of: clock => segments[0].date + (clock - clocks[0]) * 1000};
}

// Ends at the group of pictures whose boundary is nearest: groups last 1.04 s.
function require_segment_at(run, clock) {
    const {clocks} = timeline(run);
    assert.ok(clocks.some(begin => Math.abs(begin - clock) <= 0.52), `no segment begins near ${clock}: ${clocks}`);
}

function require_range(run, tag, {id, clock, rest}) {
    const [, found, date, attributes] = /^#EXT-X-DATERANGE:ID="([^"]*)",START-DATE="([^"]*)",(.*)$/.exec(tag);
    assert.equal(found, `${id}-${Date.parse(date)}`);
    const want = timeline(run).date_of(clock);
    assert.ok(Math.abs(Date.parse(date) - want) <= 2, `${date}, not ${new Date(want).toISOString()}`);
    assert.equal(attributes, rest);
}

const hexadecimal = section => `0x${section.toString('hex').toUpperCase()}`;

test('a break: date ranges from its splices, the same after a restart, and segments that end there', async context => {
    const options = ['--window', 600, '--segment', 4];
    const run = presentation('splices', {options, sources: 2});
    context.after(() => run.publisher.kill());
    const out = splice_insert(7, true, {seconds: 26.2, duration: 10});
    const back = splice_insert(7, false, {seconds: 36.1});
    const bytes = programme(50, [{at: 22, section: out}, {at: 32, section: back}]);
    const programs = run.sources.map((source, i) => new Program(source, {name: `twin${i}`}));
    context.after(() => Promise.all(programs.map(program => program.kill())));
    const feed = part => Promise.all(programs.map(program => program.feed(part)));
    const half = Math.floor(bytes.length * 0.4 / 188) * 188;
    await feed(bytes.subarray(0, half));
    await watch_until(run.checker, 'the break', () => list_text(run).includes('SCTE35-OUT='));
    assert.ok(!list_text(run).includes('SCTE35-IN='));
    await run.publisher.kill();
    run.publisher.start();
    await feed(bytes.subarray(half));
    for (const program of programs)
        assert.equal(await program.end(), 0, program.errors);
    await watch_until(run.checker, 'all', () => listed_seconds(run.checker) > 32);
    assert.deepEqual(run.checker.finish(), []);

    const ranges = ranges_of(list_text(run));
    assert.equal(ranges.length, 2, list_text(run));
    require_range(run, ranges[0], {id: 'insert-7', clock: 26.2, rest: `PLANNED-DURATION=10.000,SCTE35-OUT=${hexadecimal(out)}`});
    require_range(run, ranges[1], {id: 'insert-7', clock: 26.2, rest: `DURATION=9.900,SCTE35-IN=${hexadecimal(back)}`});
    require_segment_at(run, 26.2);
    require_segment_at(run, 36.1);

    await run.publisher.kill();
    rmSync(join(run.output, '.index.m3u8.sqlite3'));
    run.publisher.start();
    await wait_for('the state is made anew', () => run.publisher.errors.includes('goes on from its playlists'));
    const program = new Program(run.source, {name: 'later'});
    await program.feed(stream({seconds: 20, offset: 100}));
    await program.end();
    await watch_until(run.checker, 'more', () => run.checker.list().segments.some(({discontinuity}) => discontinuity));
    assert.deepEqual(ranges_of(list_text(run)), ranges);
    assert.deepEqual(run.checker.finish(), []);
});

test('a ladder tells of splices in all lists until they have left them, also of a PID that the PMT does not tell', async context => {
    const names = ['high', 'low'];
    const run = ladder(names, {settings: 'segment = 2\nwindow = 12\n', rendition: `scte35_pid = ${splice_pid}\n`});
    context.after(() => run.publisher.kill());
    const at_once = splice_insert(8, true, {duration: 5, auto_return: true});
    const sizes = ['640x360', '320x180'];
    const bytes = sizes.map(size => programme(40, [{at: 20, section: at_once}], {size, told: false}));
    const programs = run.sources.map(source => new Program(source));
    context.after(() => Promise.all(programs.map(program => program.kill())));
    const seen = new Set();
    const feed = async (programs, streams) => {
        for (let at = 0; at < streams[0].length; at += 188 * 700) {
            await Promise.all(programs.map((program, i) => program.feed(streams[i].subarray(at, at + 188 * 700))));
            run.checker.look();
            for (const text of run.checker.media_texts.values())
                ranges_of(text).forEach(tag => seen.add(tag));
        }
    };
    await feed(programs, bytes);
    await Promise.all(programs.map(program => program.end()));
    await watch_until(run.checker, 'the end', () => timeline(run).clocks.at(-1) > 47);

    // What came at once stays listed until viewers have seen it, who look once in a target duration.
    const listed_ms = statSync(join(run.output, 'high.m3u8')).mtimeMs;
    await wait_for('viewers', () => Date.now() - listed_ms > 2500);
    const later = run.sources.map(source => new Program(source, {name: 'later'}));
    context.after(() => Promise.all(later.map(program => program.kill())));
    await feed(later, sizes.map(size => stream({seconds: 20, offset: 100, size})));
    await Promise.all(later.map(program => program.end()));
    await watch_until(run.checker, 'lists without the splice', () =>
        names.every(name => ranges_of(list_text(run, name)).length === 0));
    assert.deepEqual(run.checker.finish(), []);
    assert.equal(seen.size, 2, [...seen].join('\n'));
    const [begin, end] = seen;
    assert.match(begin, new RegExp(`^#EXT-X-DATERANGE:ID="insert-8-\\d+",START-DATE="[^"]+",PLANNED-DURATION=5.000,SCTE35-OUT=${hexadecimal(at_once)}$`));
    assert.match(end, /,DURATION=5.000$/);
});
