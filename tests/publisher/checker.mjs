// Reads a published directory like a viewer, version by version, and holds it against each rule that
// the publisher keeps. What is broken is collected as {rule, detail}.

import {createRequire} from 'node:module';
import {existsSync, readFileSync, readdirSync} from 'node:fs';
import {join} from 'node:path';
import {check_master, check_media, check_rewrite, check_transport_stream, check_webvtt, date_ranges_of,
    parse_media} from '../players/rules.mjs';
import {clock_difference, packets_of, read_cues, read_segment, video_starts} from './segment.mjs';

// Its packages are those of the players' tests.
const HLS = createRequire(new URL('../players/package.json', import.meta.url))('hls-parser');

HLS.setOptions({strictMode: true, allowClosedCaptionsNone: true});

const ticks_per_second = 90000;
const longest_hole = 0.6 * ticks_per_second; // in what goes on; the publisher's own border is half a second
const same_place = 0.05 * ticks_per_second;
const half_a_picture = ticks_per_second / 120;
const slack_ms = 50; // of a cue's end

// A media playlist, by our own reading.
export function read_media(text) {
    const number = name => Number(new RegExp(`^#${name}:(\\d+)$`, 'm').exec(text)?.[1] ?? NaN);
    const segments = [];
    let next = {};
    for (const line of text.split('\n')) {
        if (line === '#EXT-X-DISCONTINUITY')
            next.discontinuity = true;
        else if (line.startsWith('#EXT-X-PROGRAM-DATE-TIME:'))
            next.date = Date.parse(line.slice(25));
        else if (line.startsWith('#EXTINF:'))
            next.duration = parseFloat(line.slice(8));
        else if (line.startsWith('#EXT-X-BYTERANGE:'))
            [next.bytes, next.begin] = line.slice(17).split('@').map(Number);
        else if (line !== '' && !line.startsWith('#')) {
            segments.push({discontinuity: false, ...next, uri: line});
            next = {};
        }
    }
    const sequence = number('EXT-X-MEDIA-SEQUENCE');
    let discontinuities = number('EXT-X-DISCONTINUITY-SEQUENCE');
    segments.forEach((segment, i) => {
        discontinuities += segment.discontinuity ? 1 : 0;
        Object.assign(segment, {sequence: sequence + i, discontinuity_number: discontinuities});
    });
    return {
        segments, sequence,
        target: number('EXT-X-TARGETDURATION'),
        discontinuity_sequence: number('EXT-X-DISCONTINUITY-SEQUENCE'),
        independent: text.includes('#EXT-X-INDEPENDENT-SEGMENTS\n'),
        event: text.includes('#EXT-X-PLAYLIST-TYPE:EVENT\n'),
        ended: text.includes('#EXT-X-ENDLIST'),
        duration: segments.reduce((sum, {duration}) => sum + duration, 0),
    };
}

// What stands behind the lines about the whole list.
const body_of = text => text.replace(/^[^]*#EXT-X-DISCONTINUITY-SEQUENCE:.*\n/, '');

// Renditions of the picture have names of one part.
const is_lead = name => /^[^.]+\.m3u8$/.test(name);
const iframes_of = lead => lead.replace('.m3u8', '.iframes.m3u8');
const lead_of = iframes => iframes.replace('.iframes.m3u8', '.m3u8');

function bits_per_second(segments) {
    const duration = segments.reduce((sum, {duration}) => sum + duration, 0);
    return segments.reduce((sum, {bytes}) => sum + bytes, 0) * 8 / duration;
}

export class Checker {
    findings = [];
    media_texts = new Map(); // the last text of each media playlist
    iframes_texts = new Map(); // the same of those of keyframes
    versions = 0;
    masters = 0;
    seen = new Map();      // by URI: {duration, sequence, date, longest_ms, left_ms}

    // `live`: the stream comes in real time, so the list has to grow in time. `clock` gives milliseconds.
    // `most_bytes`: that the segments may take, whatever that means for those that have left the list.
    constructor(directory, {master = 'index.m3u8', h264 = true, live = false, clock = Date.now, most_reads = 400,
        folders = false, most_bytes = 0} = {}) {
        Object.assign(this, {directory, master, h264, live, clock, most_reads, folders, most_bytes});
    }

    require(rule, holds, detail = '') {
        if (!holds)
            this.findings.push(`${rule}: ${detail}`);
    }

    add(name, found) {
        for (const {rule, detail} of found)
            this.findings.push(`${name}: ${rule}: ${detail}`);
    }

    read(name) {
        try {
            return readFileSync(join(this.directory, name), 'utf8');
        } catch {
            return null;
        }
    }

    parse_strictly(name, text) {
        try {
            return HLS.parse(text);
        } catch (error) {
            this.require('a strict parser takes it', false, `${name}: ${error.message}\n${text}`);
            return null;
        }
    }

    // The lead comes first: the others' names go on behind it.
    playlists() {
        return existsSync(this.directory) ? readdirSync(this.directory).filter(name => name.endsWith('.m3u8') &&
            !name.endsWith('.iframes.m3u8') && !name.startsWith('.') && name !== this.master).sort((a, b) => a.length - b.length) : [];
    }

    // All media playlists, once they tell of the same segments. They are replaced one after the other, at
    // once.
    read_together() {
        for (let reads = 1; ; reads++) {
            const texts = new Map(this.playlists().map(name => [name, this.read(name)]).filter(([, text]) => text));
            const ends = [...texts].map(([name, text]) => [name, read_media(text)])
                .map(([name, {sequence, segments}]) => ({name, end: sequence + segments.length}));
            const alike = new Set(ends.map(({end}) => end)).size <= 1;
            if (alike || reads === this.most_reads) {
                this.require('all renditions change together', alike, JSON.stringify(ends));
                this.check_same_date_ranges(texts);
                return texts;
            }
            Atomics.wait(new Int32Array(new SharedArrayBuffer(4)), 0, 0, 5);
        }
    }

    check_same_date_ranges(texts) {
        const ranges = new Set([...texts.values()].map(text => text.split('\n').filter(line => line.startsWith('#EXT-X-DATERANGE:')).join('\n')));
        this.require('all renditions have the same date ranges', ranges.size <= 1, [...ranges].join('\n--\n'));
    }

    // Looks at what is published now.
    look() {
        const before = this.clock();
        const texts = this.read_together();
        for (const [name, text] of texts) {
            if (this.media_texts.get(name) !== text)
                this.check_version(name, text, before);
        }
        for (const name of this.media_texts.keys()) {
            if (texts.size > 0 && !texts.has(name))
                this.forget_list(name, before);
        }
        if (this.media_texts.size > 0)
            this.look_at_iframes();
        // The first lists may have come since: then the master waits for the next look.
        const master = this.media_texts.size > 0 ? this.read(this.master) : null;
        if (master !== null && master !== this.master_text)
            this.check_master_version(master);
        this.check_availability();
        if (this.live && this.media_texts.size > 0)
            this.check_growth(before);
    }

    // Its track has ended, or its rung is away; it may begin anew. What it listed stays for its time
    // all the same.
    forget_list(name, now_ms) {
        this.media_texts.delete(name);
        this.iframes_texts.delete(iframes_of(name));
        this.require('a lead stays', this.lead() !== undefined, name);
        for (const segment of this.seen.values()) {
            if (segment.playlist === name)
                segment.left_ms ??= now_ms;
        }
    }

    check_growth(now_ms) {
        const {sequence, segments, target} = this.list();
        const end = sequence + segments.length;
        if (end !== this.end) {
            this.end = end;
            this.grown_ms = now_ms;
        }
        this.require('the list grows within one and a half target durations',
            now_ms - this.grown_ms <= 1500 * target, `${end}: ${now_ms - this.grown_ms} ms`);
    }

    check_version(name, text, now_ms) {
        this.versions++;
        this.parse_strictly(name, text);
        this.add(name, check_media(text));
        const list = read_media(text);
        const before_text = this.media_texts.get(name);
        this.require('all renditions have one target duration',
            list.target === (this.target ??= list.target), `${name}: ${list.target}`);
        this.require('a list names something', list.segments.length > 0, name);
        this.require('every segment has a date', list.segments.every(({date}) => date > 0), name);
        for (let i = 1; i < list.segments.length; i++) {
            const [a, b] = [list.segments[i - 1], list.segments[i]];
            this.require('dates never fall', b.date >= a.date, `${name}: ${b.uri}`);
            this.require('dates go on with the durations where the stream does', b.discontinuity ||
                Math.abs(b.date - a.date - a.duration * 1000) < 600, `${name}: ${b.uri}`);
        }
        if (before_text) {
            this.add(name, check_rewrite(before_text, text));
            this.check_numbers(name, read_media(before_text), list);
            this.check_date_ranges(name, before_text, text, list);
            this.require('an event only grows', !list.event || body_of(text).startsWith(body_of(before_text)), name);
        }
        this.note_segments(name, list, now_ms);
        this.media_texts.set(name, text);
        if (is_lead(name))
            this.check_stream(name, list);
        else if (list.segments.some(({uri}) => uri.endsWith('.vtt')))
            this.check_cues(name, list);
    }

    // What was told of a range stays so until its end has left the list.
    check_date_ranges(name, before_text, text, list) {
        const after = date_ranges_of(parse_media(text).lines);
        for (const range of date_ranges_of(parse_media(before_text).lines)) {
            const {ID: id, DURATION: duration, 'PLANNED-DURATION': planned} = range;
            const same = after.filter(other => other.ID === id);
            const end = Date.parse(range['START-DATE'].slice(1, -1)) + Number(duration ?? planned ?? 0) * 1000;
            this.require('a date range stays until it has left the list', same.length > 0 || end < list.segments[0].date, `${name}: ${id}`);
            this.require('a date range does not change', same.length === 0 ||
                same.some(other => JSON.stringify(other) === JSON.stringify(range)), `${name}: ${id}`);
        }
    }

    check_numbers(name, before, after) {
        this.require('the media sequence never falls nor skips', after.sequence >= before.sequence &&
            after.sequence <= before.sequence + before.segments.length, `${name}: ${before.sequence} -> ${after.sequence}`);
        const gone = before.segments.filter(({sequence}) => sequence < after.sequence);
        this.require('the discontinuity sequence counts those that left', after.discontinuity_sequence ===
            before.discontinuity_sequence + gone.filter(({discontinuity}) => discontinuity).length,
        `${name}: ${before.discontinuity_sequence} -> ${after.discontinuity_sequence}`);
        for (const segment of after.segments) {
            const earlier = before.segments.find(({sequence}) => sequence === segment.sequence);
            this.require('a segment does not change', !earlier ||
                JSON.stringify(earlier) === JSON.stringify(segment), `${name}: ${segment.uri}`);
        }
        this.require('nothing leaves an event', !after.event || (before.event && gone.length === 0), name);
        this.require('three target durations stay listed', gone.length === 0 ||
            after.duration >= 3 * after.target - 0.001, `${name}: ${after.duration}`);
    }

    // Its entries are bytes of segments: one picture each.
    look_at_iframes() {
        for (const name of [...this.media_texts.keys()].filter(is_lead).map(iframes_of)) {
            const text = this.read(name);
            if (text !== null && text !== this.iframes_texts.get(name))
                this.check_iframes(name, text);
        }
    }

    check_iframes(name, text) {
        const before_text = this.iframes_texts.get(name);
        this.parse_strictly(name, text);
        const list = read_media(text);
        this.require('a list of keyframes says that it is one',
            /^#EXT-X-VERSION:[4-9]$/m.test(text) && text.includes('#EXT-X-I-FRAMES-ONLY\n'), name);
        this.require('a list names something', list.segments.length > 0, name);
        const before = before_text && read_media(before_text);
        for (const entry of list.segments) {
            const old = before?.segments.find(({sequence}) => sequence === entry.sequence);
            if (!old)
                this.check_keyframe(name, list, entry);
            else
                this.require('a keyframe does not change', JSON.stringify(old) === JSON.stringify(entry),
                    `${name}: ${JSON.stringify([old, entry])}`);
        }
        if (before) {
            const gone = before.segments.filter(({sequence}) => sequence < list.sequence);
            this.require('the media sequence never falls nor skips', list.sequence >= before.sequence &&
                list.sequence <= before.sequence + before.segments.length, `${name}: ${before.sequence} -> ${list.sequence}`);
            this.require('the discontinuity sequence counts those that left', list.discontinuity_sequence ===
                before.discontinuity_sequence + gone.filter(({discontinuity}) => discontinuity).length, name);
        }
        this.iframes_texts.set(name, text);
    }

    check_keyframe(name, list, {uri, begin, bytes, duration}) {
        const detail = `${name}: ${bytes}@${begin} of ${uri}`;
        this.require('a keyframe lasts no longer than the target duration', Math.round(duration) <= list.target, detail);
        let segment;
        try {
            segment = readFileSync(join(this.directory, uri));
        } catch {
            this.require('what is listed is there', false, detail);
            return;
        }
        // From its own first packet to its last: another picture begins with the next one of the video.
        const starts = video_starts(segment);
        const picture = starts.find(({at}) => at === begin);
        this.require('a keyframe is a whole picture', picture && begin + bytes === picture.end, `${detail} ${JSON.stringify(starts)}`);
        const content = read_segment(Buffer.concat([segment.subarray(0, starts[0]?.at ?? 0), segment.subarray(begin, begin + bytes)]));
        this.require('a keyframe begins with its headers', !this.h264 || content?.sps, detail);
    }

    // Together they last as long as the segments, and have their dates and discontinuities.
    check_iframes_at_end() {
        for (const name of this.iframes_texts.keys()) {
            if (this.media_texts.has(lead_of(name)))
                this.check_iframes_against_lead(name);
        }
    }

    check_iframes_against_lead(name) {
        const [iframes, lead] = [read_media(this.iframes_texts.get(name)), read_media(this.media_texts.get(lead_of(name)))];
        this.require('the keyframes last as long as the segments', Math.abs(iframes.duration - lead.duration) < 0.01,
            `${iframes.duration}, not ${lead.duration}`);
        this.require('the keyframes have the discontinuities of the segments',
            iframes.discontinuity_sequence === lead.discontinuity_sequence, this.iframes_texts.get(name));
        for (const {uri, date, discontinuity} of lead.segments) {
            const first = iframes.segments.find(entry => entry.uri === uri);
            this.require('every segment begins with a keyframe that is listed',
                first?.date === date && first.discontinuity === discontinuity, uri);
        }
        const variant = this.iframe_variants.find(({uri}) => uri === name);
        this.require('the master names the keyframes', variant, this.master_text);
        const {bandwidth, averageBandwidth, codecs} = variant ?? {};
        const mean = bits_per_second(iframes.segments);
        this.require('AVERAGE-BANDWIDTH is the mean of the keyframes', Math.abs(mean - averageBandwidth) <= mean * 0.06 &&
            bandwidth >= averageBandwidth && codecs && !codecs.includes(','), `${this.master_text}: ${mean}`);
    }

    contents_of(list) {
        return list.segments.map(({uri}) => this.seen.get(uri)?.content);
    }

    // A discontinuity stands where the stream does not go on, and nowhere else.
    check_stream(name, list) {
        const contents = this.contents_of(list);
        for (let i = 1; i < contents.length; i++) {
            const [a, b] = [contents[i - 1], contents[i]];
            if (!a || !b)
                continue;
            const {uri, discontinuity} = list.segments[i];
            const hole = Math.abs(clock_difference(b.pts, a.pts) - list.segments[i - 1].duration * ticks_per_second);
            const same = a.streams === b.streams && (a.sps === b.sps || a.sps === '' || b.sps === '');
            if (discontinuity)
                this.require('what goes on is no discontinuity', hole > same_place || !same ||
                    this.sounds_of(list.segments[i - 1]) !== this.sounds_of(list.segments[i]), `${name}: ${uri}`);
            else
                this.require('what does not go on is a discontinuity', hole <= longest_hole && same,
                    `${name}: ${uri}: ${hole} ticks behind ${JSON.stringify(a)}: ${JSON.stringify(b)}`);
        }
        if (list.independent)
            this.check_independence(name, contents);
    }

    // Which files of separate sound a segment has: they come before its lists, and stay behind them.
    sounds_of({sequence}) {
        return readdirSync(this.directory).filter(name => name.endsWith(`.${sequence}.ts`) && name.split('.').length > 3)
            .map(name => name.split('.')[1]).sort().join(' ');
    }

    check_independence(name, contents) {
        this.require('independent segments begin with an IDR picture',
            !this.h264 || contents.every(content => !content || content.idr), name);
    }

    // Subtitles have the segments of the picture, and a cue stands in each segment that it reaches into.
    check_cues(name, list) {
        const lead = this.list();
        this.require('subtitles have the segments of the picture', list.sequence === lead.sequence &&
            list.segments.length === lead.segments.length, name);
        for (let i = 1; i < list.segments.length; i++) {
            const content = this.seen.get(lead.segments[i]?.uri)?.content;
            const [a, b] = [list.segments[i - 1], list.segments[i]].map(({uri}) => this.seen.get(uri)?.cues ?? []);
            if (!content || list.segments[i].discontinuity)
                continue;
            const reaching = a.filter(({end}) => clock_difference(end % 2 ** 33, content.pts) > slack_ms * 90);
            this.require('a cue is repeated where it reaches into the next segment',
                reaching.every(({text}) => b.some(cue => cue.text === text)), `${name}: ${list.segments[i].uri}`);
        }
    }

    note_segments(name, list, now_ms) {
        const listed = new Set(list.segments.map(({uri}) => uri));
        for (const [uri, segment] of this.seen) {
            if (segment.playlist === name && segment.left_ms === undefined && !listed.has(uri))
                segment.left_ms = now_ms;
        }
        for (const segment of list.segments) {
            if (!this.seen.has(segment.uri)) {
                const noted = {...segment, playlist: name};
                this.seen.set(segment.uri, noted);
                this.check_segment(name, noted);
            }
            const known = this.seen.get(segment.uri);
            known.longest_ms = Math.max(known.longest_ms ?? 0, list.duration * 1000);
        }
    }

    check_segment(name, noted) {
        const {uri, sequence, date, duration} = noted;
        const folder = this.folders ? `${new Date(date).toISOString().slice(0, 13).replaceAll('-', '')}Z/` : '';
        this.require('a segment stands in the folder of its hour', uri === folder + uri.slice(uri.lastIndexOf('/') + 1), uri);
        let bytes;
        try {
            bytes = readFileSync(join(this.directory, uri));
        } catch (error) {
            this.require('what is listed is there', false, `${name}: ${uri}: ${error.code}`);
            return;
        }
        noted.bytes = bytes.length;
        if (uri.endsWith('.vtt')) {
            this.add(uri, check_webvtt(bytes.toString()));
            noted.cues = read_cues(bytes.toString());
        } else {
            this.add(uri, check_transport_stream(bytes));
            noted.content = read_segment(bytes);
            this.require('a segment has a picture or sound', noted.content, uri);
        }
        // All renditions have the same segments.
        for (const other of this.seen.values()) {
            if (other.sequence === sequence && other.playlist !== name) {
                this.require('all renditions have the same dates and durations',
                    other.date === date && other.duration === duration, `${uri} and ${other.uri}`);
                this.require('all renditions count the same discontinuities',
                    other.discontinuity_number === noted.discontinuity_number, `${uri} and ${other.uri}`);
                this.require('all pictures of one number begin at one time', !noted.content || !other.content ||
                    !is_lead(name) || !is_lead(other.playlist) ||
                    Math.abs(clock_difference(noted.content.pts, other.content.pts)) < half_a_picture, `${uri} and ${other.uri}`);
            }
        }
    }

    // The longest of the renditions of the picture.
    lead() {
        const length = name => read_media(this.media_texts.get(name)).segments.length;
        const leads = [...this.media_texts.keys()].filter(is_lead);
        return leads.sort((a, b) => length(b) - length(a))[0];
    }

    check_master_version(text) {
        this.masters++;
        this.master_text = text;
        this.add(this.master, check_master(text));
        const parsed = this.parse_strictly(this.master, text);
        if (!parsed)
            return;
        this.variants = parsed.variants.filter(({isIFrameOnly}) => !isIFrameOnly);
        this.iframe_variants = parsed.variants.filter(({isIFrameOnly}) => isIFrameOnly);
        this.require('there is a variant', this.variants.length > 0, text);
        for (const variant of this.variants) {
            this.require('the master is complete', variant.codecs && variant.averageBandwidth > 0 &&
                variant.bandwidth >= variant.averageBandwidth && /CLOSED-CAPTIONS=("|NONE)/.test(text), text);
            if (this.h264)
                this.require('the master tells the picture', variant.resolution?.width > 0 && variant.frameRate > 0, text);
        }
        const uris = [...text.matchAll(/URI="([^"]*)"/g)].map(([, uri]) => uri).concat(this.variants.map(({uri}) => uri));
        for (const uri of uris)
            this.require('the master names what is there', existsSync(join(this.directory, uri)) ||
                this.read(this.master) !== text, uri);
        this.variant = this.variants[0];
        if (parsed.independentSegments)
            this.check_independence(text, this.contents_of(this.list()));
    }

    // What the master says of the whole, which it says last.
    check_master_at_end() {
        if (!this.variant)
            return;
        for (const name of this.media_texts.keys())
            this.require('the master names every rendition', this.master_text.includes(name), name);
        for (const variant of this.variants)
            this.check_bandwidth(variant);
    }

    // Of the variant, with what all share.
    check_bandwidth({uri, bandwidth, averageBandwidth}) {
        const {segments: listed, target} = read_media(this.media_texts.get(uri));
        const needs = ({playlist}) => playlist === uri || !is_lead(playlist);
        const segments = listed.map(({sequence, duration}) => ({duration,
            bytes: [...this.seen.values()].filter(other => other.sequence === sequence && needs(other))
                .reduce((sum, {bytes}) => sum + bytes, 0)}));
        for (const segment of segments.filter(({duration}) => duration >= target * 0.5 && duration <= target * 1.5))
            this.require('BANDWIDTH is the peak', bits_per_second([segment]) <= bandwidth + 1, `${bandwidth}: ${JSON.stringify(segment)}`);
        const mean = bits_per_second(segments);
        this.require('AVERAGE-BANDWIDTH is the mean', Math.abs(mean - averageBandwidth) <= mean * 0.06, `${averageBandwidth}, not ${mean}`);
    }

    // A segment that has left stays for its own time and that of the longest list that had it.
    check_availability() {
        for (const [uri, {left_ms, duration, longest_ms}] of this.seen) {
            const hold_ms = duration * 1000 + longest_ms;
            const read_before = this.clock();
            const there = existsSync(join(this.directory, uri));
            this.require('what was listed stays fetchable', there ||
                (left_ms !== undefined && (this.most_bytes > 0 || read_before >= left_ms + hold_ms)), uri);
            if (!there)
                this.seen.delete(uri);
        }
    }

    keyframes_are_of_the_list() {
        const ends = text => read_media(text).segments.filter((segment, i, all) => i === 0 || i === all.length - 1)
            .map(({uri}) => uri).join();
        return [...this.iframes_texts].every(([name, text]) => ends(text) === ends(this.media_texts.get(lead_of(name)) ?? ''));
    }

    // Whatever is to be said of the whole at the end.
    finish() {
        this.look();
        // The keyframes' lists are replaced a moment before the others.
        for (let looks = 1; looks < this.most_reads && !this.keyframes_are_of_the_list(); looks++) {
            Atomics.wait(new Int32Array(new SharedArrayBuffer(4)), 0, 0, 5);
            this.look();
        }
        this.check_master_at_end();
        this.check_iframes_at_end();
        return this.findings;
    }

    list() {
        return read_media(this.media_texts.get(this.lead()));
    }

    bytes_of(uri) {
        return readFileSync(join(this.directory, uri));
    }
}

// Packets without those of the PAT and the PMT, whose counters may differ, and without padding.
export function media_packets(bytes, pmt_pid = 0x1000) {
    const kept = [];
    for (const packet of packets_of(bytes)) {
        const pid = (packet[1] & 0x1f) << 8 | packet[2];
        if (pid !== 0 && pid !== pmt_pid && pid !== 0x1fff)
            kept.push(packet);
    }
    return Buffer.concat(kept);
}
