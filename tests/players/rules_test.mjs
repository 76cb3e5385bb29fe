// The rules themselves: a sound file of each kind breaks none, and each of these breaks what it says.

import assert from 'node:assert/strict';
import {test} from 'node:test';
import {check_master, check_media, check_rewrite, check_transport_stream, check_webvtt} from './rules.mjs';

const media = `#EXTM3U
#EXT-X-VERSION:4
#EXT-X-TARGETDURATION:2
#EXT-X-MEDIA-SEQUENCE:7

#EXTINF:2.040,
ch1.00000007.ts

#EXTINF:2.040,
ch1.00000008.ts

#EXTINF:2.040,
ch1.00000009.ts
`;

// A break from its two sections, and a signal.
const with_ranges = media.replace('#EXTINF', `#EXT-X-DATERANGE:ID="a",START-DATE="2026-11-21T12:00:00.000Z",PLANNED-DURATION=30.000,SCTE35-OUT=0xFC01
#EXT-X-DATERANGE:ID="a",START-DATE="2026-11-21T12:00:00.000Z",DURATION=29.000,SCTE35-IN=0xFC02
#EXT-X-DATERANGE:ID="b",START-DATE="2026-11-21T12:00:00.000Z",SCTE35-CMD=0xFC03
#EXT-X-PROGRAM-DATE-TIME:2026-11-21T12:00:00.000Z
#EXTINF`);

const next_media = media.replace('SEQUENCE:7', 'SEQUENCE:8').replace('#EXTINF:2.040,\nch1.00000007.ts\n\n', '') +
    '#EXTINF:2.040,\nch1.00000010.ts\n';

const master = `#EXTM3U
#EXT-X-VERSION:4
#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID="caps",NAME="CC1",INSTREAM-ID="CC1",AUTOSELECT=YES,DEFAULT=YES
#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID="caps",NAME="CC2",INSTREAM-ID="CC2"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",NAME="English",LANGUAGE="eng",URI="eng.m3u8"
#EXT-X-STREAM-INF:BANDWIDTH=800000,CLOSED-CAPTIONS="caps",SUBTITLES="subs",RESOLUTION=320x180
ch1.m3u8.av.m3u8
`;

const webvtt = `WEBVTT
X-TIMESTAMP-MAP=MPEGTS:900000,LOCAL:0:00:10.000
Kind: captions

00:00:10.000 --> 00:00:11.000
text
`;

// `break` turns the sound file into one that breaks `rule`; null: into one that is still sound.
const cases = [
    {name: 'sound media playlist', check: check_media, file: media, break: text => text, rule: null},
    {name: 'sound master playlist', check: check_master, file: master, break: text => text, rule: null},
    {name: 'sound WebVTT', check: check_webvtt, file: webvtt, break: text => text, rule: null},
    {name: 'comments and blank lines', check: check_media, file: media, break: text => `${text}\n# note\n`, rule: null},
    {name: 'blank line first', check: check_media, file: media, break: text => `\n${text}`, rule: '4.3.1.1'},
    {name: 'byte order mark', check: check_media, file: media, break: text => `\ufeff${text}`, rule: '4.1'},
    {name: 'cut short', check: check_media, file: media, break: text => text.slice(0, -1), rule: '4.1'},
    {name: 'no target', check: check_media, file: media, break: text => text.replace(/#EXT-X-TARGET.*\n/, ''), rule: '4.3.3.1'},
    {name: 'two targets', check: check_media, file: media, break: text => text.replace(/(#EXT-X-TARGET.*\n)/, '$1$1'), rule: '4.3'},
    {name: 'just not too long', check: check_media, file: media, break: text => text.replace('2.040', '2.499'), rule: null},
    {name: 'too long', check: check_media, file: media, break: text => text.replace('2.040', '2.500'), rule: '4.3.3.1'},
    {name: 'no duration', check: check_media, file: media, break: text => text.replace(/#EXTINF.*\n/, ''), rule: '4.3.2.1'},
    {name: 'no comma', check: check_media, file: media, break: text => text.replace('2.040,', '2.040'), rule: '4.3.2.1'},
    {name: 'fraction in version 2', check: check_media, file: media, break: text => text.replace('VERSION:4', 'VERSION:2'), rule: '4.3.1.2'},
    {name: 'master tag in media', check: check_media, file: media, break: text => `${text}#EXT-X-STREAM-INF:BANDWIDTH=1\n`, rule: '4.3'},
    {name: 'late sequence', check: check_media, file: media.replace(/#EXT-X-MEDIA-SEQ.*\n/, ''), break: text => `${text}#EXT-X-MEDIA-SEQUENCE:7\n`, rule: '4.3.3.2'},
    {name: 'date ranges', check: check_media, file: with_ranges, break: text => text, rule: null},
    {name: 'date range without ID', check: check_media, file: with_ranges, break: text => text.replace('ID="b",', ''), rule: '4.3.2.7'},
    {name: 'date range without date', check: check_media, file: with_ranges, break: text => text.replace(',START-DATE="2026-11-21T12:00:00.000Z"', ''), rule: '4.3.2.7'},
    {name: 'one ID for two ranges', check: check_media, file: with_ranges, break: text => text.replace('Z",DURATION', '1Z",DURATION'), rule: '4.3.2.7'},
    {name: 'section in quotes', check: check_media, file: with_ranges, break: text => text.replace('0xFC03', '"0xFC03"'), rule: '4.2'},
    {name: 'end without duration', check: check_media, file: with_ranges, break: text => text.replace(',DURATION=29.000', ''), rule: '4.3.2.7.1'},
    {name: 'ranges without dates', check: check_media, file: with_ranges, break: text => text.replace(/#EXT-X-PROGRAM.*\n/, ''), rule: '4.3.2.7'},
    {name: 'no variant', check: check_master, file: master, break: text => text.replace(/#EXT-X-STREAM[^]*/, ''), rule: '4.3.4.2'},
    {name: 'variant without URI', check: check_master, file: master, break: text => text.replace('ch1.m3u8.av.m3u8\n', ''), rule: '4.3.4.2'},
    {name: 'no bandwidth', check: check_master, file: master, break: text => text.replace('BANDWIDTH=800000,', ''), rule: '4.3.4.2'},
    {name: 'bandwidth 0', check: check_master, file: master, break: text => text.replace('=800000', '=0'), rule: '4.3.4.2'},
    {name: 'bandwidth in quotes', check: check_master, file: master, break: text => text.replace('800000', '"800000"'), rule: '4.2'},
    {name: 'missing group', check: check_master, file: master, break: text => text.replace('SUBTITLES="subs"', 'SUBTITLES="sub"'), rule: '4.3.4.2'},
    {name: 'no group', check: check_master, file: master, break: text => text.replace('GROUP-ID="subs",', ''), rule: '4.3.4.1'},
    {name: 'same name twice', check: check_master, file: master, break: text => text.replace('NAME="CC2"', 'NAME="CC1"'), rule: '4.3.4.1.1'},
    {name: 'two defaults', check: check_master, file: master, break: text => text.replace('="CC2"\n', '="CC2",DEFAULT=YES\n'), rule: '4.3.4.1.1'},
    {name: 'captions without channel', check: check_master, file: master, break: text => text.replace(',INSTREAM-ID="CC2"', ''), rule: '4.3.4.1'},
    {name: 'no such channel', check: check_master, file: master, break: text => text.replace('ID="CC2"', 'ID="CC5"'), rule: '4.3.4.1'},
    {name: 'subtitles without URI', check: check_master, file: master, break: text => text.replace(',URI="eng.m3u8"', ''), rule: '4.3.4.1'},
    {name: 'same attribute twice', check: check_master, file: master, break: text => text.replace('BANDWIDTH=800000', 'BANDWIDTH=800000,BANDWIDTH=1'), rule: '4.2'},
    {name: 'blank after comma', check: check_master, file: master, break: text => text.replace(',NAME', ', NAME'), rule: '4.2'},
    {name: 'no header', check: check_webvtt, file: webvtt, break: text => text.slice(1), rule: '3.5'},
    {name: 'cues without map', check: check_webvtt, file: webvtt, break: text => text.replace(/X-TIME.*\n/, ''), rule: '3.5'},
    {name: 'one digit of hours', check: check_webvtt, file: webvtt, break: text => text.replace('> 00:', '> 0:'), rule: 'WebVTT'},
];

const rewrite_cases = [
    {name: 'sound rewrite', after: next_media, rule: null},
    {name: 'no change', after: media, rule: null},
    {name: 'sequence falls', after: media.replace('SEQUENCE:7', 'SEQUENCE:6'), rule: '6.2.2'},
    {name: 'sequence stays', after: next_media.replace('SEQUENCE:8', 'SEQUENCE:7'), rule: '6.2.1'},
    {name: 'other duration', after: media.replace('2.040', '2.000'), rule: '6.2.1'},
    {name: 'other target', after: next_media.replace('DURATION:2', 'DURATION:1'), rule: '6.2.1'},
    {name: 'too little stays', after: next_media.replace(/#EXTINF:2.040,\nch1.00000010.ts\n/, ''), rule: '6.2.2'},
];

function packet(pid, payload = []) {
    const bytes = new Uint8Array(188).fill(0xff);
    bytes.set([0x47, 0x40 | pid >> 8, pid & 0xff, 0x10, ...payload]);
    return bytes;
}

// pointer_field; table_id, section_length 13, transport_stream_id, version, section numbers;
// programme 1 on PID 0x1000; CRC_32
const pat = packet(0, [0, 0, 0xb0, 13, 0, 1, 0xc1, 0, 0, 0, 1, 0xf0, 0x00, 0, 0, 0, 0]);
const pmt = packet(0x1000);
const other = packet(0x100);

const segment_cases = [
    {name: 'tables first', packets: [pat, pmt, other], rule: null},
    {name: 'tables later', packets: [other, pat, pmt], rule: '3.2 a segment begins'},
    {name: 'no PMT', packets: [pat, other], rule: '3.2 a segment has'},
    {name: 'cut short', packets: [pat, pmt, other.slice(1)], rule: '3.2 a segment is whole'},
];

function expect_rule(found, rule) {
    const rules = found.map(({rule}) => rule);
    if (rule === null)
        assert.deepEqual(found, []);
    else
        assert.ok(rules.some(found_rule => found_rule.startsWith(rule)), `want ${rule}, got ${rules.join('; ')}`);
}

for (const {name, check, file, break: damage, rule} of cases) {
    test(name, () => {
        const text = damage(file);
        assert.ok(rule === null || text !== file, 'the case changes the file');
        expect_rule(check(text), rule);
    });
}

for (const {name, after, rule} of rewrite_cases)
    test(name, () => expect_rule(check_rewrite(media, after), rule));

for (const {name, packets, rule} of segment_cases)
    test(`segment: ${name}`, () => expect_rule(check_transport_stream(Buffer.concat(packets)), rule));
