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

const segment = Buffer.concat([
    packet(0, [0, 0, 0xb0, 13, 0, 1, 0xc1, 0, 0, 0, 1, 0xf0, 0, 0, 0, 0, 0]),
    packet(0x1000, [0, 2, 0xb0, 13]),
    packet(0x101, [0, 0, 1, 0x65]),
]);

const line = (number, extra = '') => `${extra}#EXT-X-PROGRAM-DATE-TIME:2026-11-21T12:00:${number * 2}.000Z\n` +
    `#EXTINF:2.00000,\nmain.${number}.ts\n`;
const list = (first, numbers, {target = 2, discontinuities = 0, extra = {}} = {}) =>
    `#EXTM3U\n#EXT-X-VERSION:4\n#EXT-X-INDEPENDENT-SEGMENTS\n#EXT-X-TARGETDURATION:${target}\n` +
    `#EXT-X-MEDIA-SEQUENCE:${first}\n#EXT-X-DISCONTINUITY-SEQUENCE:${discontinuities}\n` +
    numbers.map(number => line(number, extra[number])).join('');
const master = '#EXTM3U\n#EXT-X-VERSION:4\n#EXT-X-STREAM-INF:BANDWIDTH=9,AVERAGE-BANDWIDTH=8,CODECS="avc1.42C014",' +
    'RESOLUTION=320x180,FRAME-RATE=25.000,CLOSED-CAPTIONS=NONE\nmain.m3u8\n';

function findings_of({before = list(10, [10, 11, 12]), after = list(11, [11, 12, 13]), files = [10, 11, 12, 13],
    main = master, bytes = segment} = {}) {
    const directory = scratch_directory('checker');
    mkdirSync(directory, {recursive: true});
    const write = (name, content) => writeFileSync(join(directory, name), content);
    for (const number of [10, 11, 12, 13])
        write(`main.${number}.ts`, bytes);
    write('main.m3u8', before);
    write('index.m3u8', main);
    const checker = new Checker(directory);
    checker.look();
    for (const name of readdirSync(directory).filter(name => name.endsWith('.ts'))) {
        if (!files.includes(Number(name.split('.')[1])))
            rmSync(join(directory, name));
    }
    write('main.m3u8', after);
    return checker.finish();
}

test('a sound presentation breaks nothing', () => assert.deepEqual(findings_of(), []));

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
    ['no IDR picture', {bytes: Buffer.from(segment).fill(0x61, 2 * 188 + 7, 2 * 188 + 8)}, 'IDR'],
    ['no tables', {bytes: Buffer.concat([segment.subarray(188), segment.subarray(0, 188)])}, 'begins with its PAT'],
    ['no codecs', {main: master.replace(/CODECS="[^"]*",/, '')}, 'complete'],
    ['no picture rate', {main: master.replace('FRAME-RATE=25.000,', '')}, 'tells the picture'],
    ['no parser takes it', {after: list(11, [11, 12, 13]).replace('#EXTM3U\n', '')}, 'strict parser'],
])
    test(`it is found when ${name}`, () => assert.match(findings_of(change).join('\n'), new RegExp(rule)));
