// The checker itself: a sound rewrite breaks no rule, and each of these breaks what it says.

import assert from 'node:assert/strict';
import {mkdirSync, readdirSync, rmSync, writeFileSync} from 'node:fs';
import {join} from 'node:path';
import {test} from 'node:test';
import {Checker} from './checker.mjs';
import {scratch_directory} from './runs.mjs';

function packet(pid, payload) {
    const bytes = Buffer.alloc(188, 0xff);
    Buffer.from([0x47, 0x40 | pid >> 8, pid & 0xff, 0x10, ...payload]).copy(bytes);
    return bytes;
}

// Two seconds of an H.264 programme, as far as the checker looks at it.
function segment(number, {ticks = number * 180000, slice = 0x65, sps = 1} = {}) {
    const pts = [0x21 | ticks / 2 ** 29 & 0x0e, ticks >> 22 & 0xff, ticks >> 14 & 0xfe | 1, ticks >> 7 & 0xff, ticks << 1 & 0xfe | 1];
    return Buffer.concat([
        packet(0, [0, 0, 0xb0, 13, 0, 1, 0xc1, 0, 0, 0, 1, 0xf0, 0, 0, 0, 0, 0]),
        packet(0x1000, [0, 2, 0xb0, 18, 0, 1, 0xc1, 0, 0, 0xe1, 1, 0xf0, 0, 0x1b, 0xe1, 1, 0xf0, 0, 0, 0, 0, 0]),
        packet(0x101, [0, 0, 1, 0xe0, 0, 0, 0x80, 0x80, 5, ...pts, 0, 0, 1, 0x67, sps, 0, 0, 1, slice]),
    ]);
}

const line = (number, extra = '') => `${extra}#EXT-X-PROGRAM-DATE-TIME:2026-11-21T12:00:${number * 2}.000Z\n` +
    `#EXTINF:2.00000,\nmain.${number}.ts\n`;
const list = (first, numbers, {target = 2, discontinuities = 0, extra = {}} = {}) =>
    `#EXTM3U\n#EXT-X-VERSION:4\n#EXT-X-INDEPENDENT-SEGMENTS\n#EXT-X-TARGETDURATION:${target}\n` +
    `#EXT-X-MEDIA-SEQUENCE:${first}\n#EXT-X-DISCONTINUITY-SEQUENCE:${discontinuities}\n` +
    numbers.map(number => line(number, extra[number])).join('');
const rates = 'BANDWIDTH=2300,AVERAGE-BANDWIDTH=2256';
const no_claim = text => text.replace(/#EXT-X-INDEPENDENT-SEGMENTS\n/, '');
const master = `#EXTM3U\n#EXT-X-VERSION:4\n#EXT-X-STREAM-INF:${rates},CODECS="avc1.42C014",` +
    'RESOLUTION=320x180,FRAME-RATE=25.000,CLOSED-CAPTIONS=NONE\nmain.m3u8\n';

// `segments` are what is told of some of them; `others` further files, before and after.
function findings_of({before = list(10, [10, 11, 12]), after = list(11, [11, 12, 13]), files = [10, 11, 12, 13],
    main = master, segments = {}, bytes = number => segment(number, segments[number]), others = [{}, {}], ...options} = {}) {
    const directory = scratch_directory('checker');
    mkdirSync(directory, {recursive: true});
    const write = (name, content) => writeFileSync(join(directory, name), content);
    const write_all = texts => Object.entries(texts).forEach(([name, text]) => write(name, text));
    for (const number of [10, 11, 12, 13])
        write(`main.${number}.ts`, bytes(number));
    write_all(others[0]);
    write('main.m3u8', before);
    write('index.m3u8', main);
    const checker = new Checker(directory, {most_reads: 1, ...options});
    checker.look();
    for (const name of readdirSync(directory).filter(name => name.endsWith('.ts'))) {
        if (!files.includes(Number(name.split('.')[1])))
            rmSync(join(directory, name));
    }
    write_all(others[1]);
    write('main.m3u8', after);
    return checker.finish();
}

// A language beside the picture. The cue of segment 11 lasts into 12.
const cues = '00:00:03.500 --> 00:00:04.500\nwords\n\n';
const subtitles = text => text.replace(/main\.(\d+)\.ts/g, 'main.sub-eng.$1.vtt');
const with_subtitles = ({before = list(10, [10, 11, 12]), after = list(11, [11, 12, 13]), repeated = cues} = {}) => {
    const vtt = (number, text) => [`main.sub-eng.${number}.vtt`,
        `WEBVTT\nX-TIMESTAMP-MAP=MPEGTS:${10 * 180000},LOCAL:00:00:00.000\n\n${text}`];
    return {
        others: [{...Object.fromEntries([vtt(10, ''), vtt(11, cues), vtt(12, repeated), vtt(13, '')]),
            'main.sub-eng.m3u8': subtitles(before)}, {'main.sub-eng.m3u8': subtitles(after)}],
        main: master.replace('#EXT-X-STREAM-INF:', '#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subtitles",NAME="English",' +
            'URI="main.sub-eng.m3u8"\n#EXT-X-STREAM-INF:SUBTITLES="subtitles",').replace(rates, 'BANDWIDTH=3000,AVERAGE-BANDWIDTH=2600'),
    };
};

// Another rung, with the same segments.
const low = text => text.replace(/main\.(\d+)\.ts/g, 'low.$1.ts');
const with_ladder = ({before = list(10, [10, 11, 12]), after = list(11, [11, 12, 13]), segments = {}} = {}) => ({
    others: [{...Object.fromEntries([10, 11, 12, 13].map(number => [`low.${number}.ts`, segment(number, segments[number])])),
        'low.m3u8': low(before)}, {'low.m3u8': low(after)}],
    main: master + master.split('\n').slice(2).join('\n').replace('main', 'low'),
});

// A break of eight seconds in the list, from its second segment on.
const out = '#EXT-X-DATERANGE:ID="a",START-DATE="2026-11-21T12:00:22.000Z",PLANNED-DURATION=8.000,SCTE35-OUT=0xFC\n';
const with_range = (text, range = out) => text.replace('#EXT-X-PROGRAM', `${range}$&`);
const with_ranges = (before, after) => ({before: with_range(list(10, [10, 11, 12]), before),
    after: with_range(list(11, [11, 12, 13]), after)});
const event = numbers => list(10, numbers).replace('#EXT-X-MEDIA-S', '#EXT-X-PLAYLIST-TYPE:EVENT\n$&');
const with_event = after => ({before: event([10, 11, 12]), after: after(event([10, 11, 12, 13]))});

let hour = 0; // a clock that jumps by an hour with each look

test('a sound presentation breaks nothing', () => {
    assert.deepEqual(findings_of(), []);
    assert.deepEqual(findings_of(with_subtitles()), []);
    assert.deepEqual(findings_of(with_ladder()), []);
    assert.deepEqual(findings_of(with_ranges(out, out)), []);
    assert.deepEqual(findings_of(with_event(text => text.replace(line(13), out + line(13)))), []);
});

for (const [name, change, rule] of [
    ['the sequence falls', {after: list(9, [10, 11, 12])}, 'never falls'],
    ['the sequence skips', {after: list(20, [13, 13, 13])}, 'nor skips'],
    ['the target changes', {after: list(11, [11, 12, 13], {target: 3})}, 'target duration stays'],
    ['a discontinuity left uncounted', {before: list(10, [10, 11, 12], {extra: {10: '#EXT-X-DISCONTINUITY\n'}})}, 'counts those that left'],
    ['a discontinuity is added later', {after: list(11, [11, 12, 13], {extra: {12: '#EXT-X-DISCONTINUITY\n'}})}, 'does not change'],
    ['what is listed is missing', {files: [10, 11, 12]}, 'what is listed is there'],
    ['what left is removed at once', {files: [11, 12, 13]}, 'stays fetchable'],
    ['the list is too short', {after: list(12, [12, 13])}, 'three target durations'],
    ['the list is empty', {after: list(13, [])}, 'names something'],
    ['a date is missing', {after: list(11, [11, 12, 13]).replace(/#EXT-X-PROGRAM.*\n/, '')}, 'has a date'],
    ['dates fall', {after: list(11, [11, 12, 13]).replace('12:00:26', '11:00:26')}, 'dates never fall'],
    ['no IDR picture', {segments: {13: {slice: 0x61}}}, 'IDR'],
    ['a list says too late that all are independent', {before: no_claim(list(10, [10, 11, 12])),
        segments: {12: {slice: 0x61}}}, 'IDR'],
    ['the master says that all are independent', {main: master.replace(/VERSION:4\n/, '$&#EXT-X-INDEPENDENT-SEGMENTS\n'),
        before: no_claim(list(10, [10, 11, 12])), after: no_claim(list(11, [11, 12, 13])),
        segments: {12: {slice: 0x61}}}, 'IDR'],
    ['no tables', {bytes: number => segment(number).subarray(2 * 188)}, 'begins with its PAT'],
    ['time jumps untold', {segments: {13: {ticks: 900000000}}}, 'does not go on is a discontinuity'],
    ['the format changes untold', {segments: {13: {sps: 2}}}, 'does not go on is a discontinuity'],
    ['a discontinuity stands where all goes on', {after: list(11, [11, 12, 13], {extra: {13: '#EXT-X-DISCONTINUITY\n'}})}, 'no discontinuity'],
    ['the list stands still', {after: list(10, [10, 11, 12]), live: true, clock: () => 3600000 * hour++}, 'grows within'],
    ['a rendition stays behind', with_subtitles({after: list(10, [10, 11, 12])}), 'change together'],
    ['subtitles begin later than the picture', with_subtitles({after: list(12, [12, 13])}), 'segments of the picture'],
    ['a cue breaks off', with_subtitles({repeated: ''}), 'cue is repeated'],
    ['the master does not name a rendition', {...with_subtitles(), main: master}, 'names every rendition'],
    ['a rung has other dates', with_ladder({after: list(11, [11, 12, 13]).replace('12:00:26', '12:00:27')}), 'same dates'],
    ['a rung counts other discontinuities', with_ladder({before: list(10, [10, 11, 12], {discontinuities: 1}),
        after: list(11, [11, 12, 13], {discontinuities: 1})}), 'same discontinuities'],
    ['a rung has other numbers', with_ladder({segments: {13: {ticks: 14 * 180000}}}), 'begin at one time'],
    ['a rung has another target', with_ladder({before: list(10, [10, 11, 12], {target: 3}),
        after: list(11, [11, 12, 13], {target: 3})}), 'one target duration'],
    ['a date range goes too early', with_ranges(out, ''), 'stays until it has left'],
    ['a date range changes', with_ranges(out, out.replace('8.000', '9.000')), 'range does not change'],
    ['a date range is told before what was listed', with_event(text => with_range(text)), 'an event only grows'],
    ['a rung tells of no date range', with_ladder({before: with_range(list(10, [10, 11, 12]))}), 'same date ranges'],
    ['the peak is told too low', {main: master.replace(rates, 'BANDWIDTH=2200,AVERAGE-BANDWIDTH=2200')}, 'is the peak'],
    ['the mean is told wrong', {main: master.replace('AVERAGE-BANDWIDTH=2256', 'AVERAGE-BANDWIDTH=1000')}, 'is the mean'],
    ['no codecs', {main: master.replace(/CODECS="[^"]*",/, '')}, 'complete'],
    ['no picture rate', {main: master.replace('FRAME-RATE=25.000,', '')}, 'tells the picture'],
    ['no parser takes it', {after: list(11, [11, 12, 13]).replace('#EXTM3U\n', '')}, 'strict parser'],
])
    test(`it is found when ${name}`, () => assert.match(findings_of(change).join('\n'), new RegExp(rule)));
