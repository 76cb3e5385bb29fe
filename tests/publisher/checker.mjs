// Reads a published directory like a viewer, version by version, and holds it against each rule that
// the publisher keeps. What is broken is collected as {rule, detail}.

import {createRequire} from 'node:module';
import {existsSync, readFileSync, readdirSync, statSync} from 'node:fs';
import {join} from 'node:path';
import {check_master, check_media, check_rewrite, check_transport_stream, check_webvtt} from '../players/rules.mjs';

// Its packages are those of the players' tests.
const HLS = createRequire(new URL('../players/package.json', import.meta.url))('hls-parser');

HLS.setOptions({strictMode: true, allowClosedCaptionsNone: true});

const packet_bytes = 188;

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
        else if (line !== '' && !line.startsWith('#')) {
            segments.push({discontinuity: false, ...next, uri: line});
            next = {};
        }
    }
    const sequence = number('EXT-X-MEDIA-SEQUENCE');
    segments.forEach((segment, i) => segment.sequence = sequence + i);
    return {
        segments, sequence,
        target: number('EXT-X-TARGETDURATION'),
        discontinuity_sequence: number('EXT-X-DISCONTINUITY-SEQUENCE'),
        independent: text.includes('#EXT-X-INDEPENDENT-SEGMENTS\n'),
        ended: text.includes('#EXT-X-ENDLIST'),
        duration: segments.reduce((sum, {duration}) => sum + duration, 0),
    };
}

// Whether the first picture of an H.264 segment is an IDR picture: its first slice has type 5.
export function begins_with_idr(bytes) {
    for (let i = 0; i + 4 < bytes.length; i++) {
        if (bytes[i] !== 0 || bytes[i + 1] !== 0 || bytes[i + 2] !== 1)
            continue;
        const type = bytes[i + 3] & 0x1f;
        // Behind a PES header's prefix stands a stream id, from 0xBC on.
        if (bytes[i + 3] < 0x80 && (type === 5 || type === 1))
            return type === 5;
    }
    return false;
}

export class Checker {
    findings = [];
    media_texts = new Map(); // the last text of each media playlist
    versions = 0;
    masters = 0;
    seen = new Map();      // by URI: {duration, sequence, date, hold_ms, left_ms}
    longest_ms = new Map(); // by playlist: the longest that it has been

    constructor(directory, {master = 'index.m3u8', h264 = true, window = 0} = {}) {
        Object.assign(this, {directory, master, h264, window});
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

    playlists() {
        return existsSync(this.directory) ? readdirSync(this.directory).filter(name => name.endsWith('.m3u8') &&
            !name.startsWith('.') && name !== this.master) : [];
    }

    // Looks at what is published now.
    look() {
        const before = Date.now();
        const now = new Map(this.playlists().map(name => [name, this.read(name)]).filter(([, text]) => text));
        for (const [name, text] of now) {
            if (this.media_texts.get(name) !== text)
                this.check_version(name, text, before);
        }
        const master = this.read(this.master);
        if (master !== null && master !== this.master_text)
            this.check_master_version(master);
        this.check_availability();
    }

    check_version(name, text, now_ms) {
        this.versions++;
        this.parse_strictly(name, text);
        this.add(name, check_media(text));
        const list = read_media(text);
        const before_text = this.media_texts.get(name);
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
        }
        this.note_segments(name, list, now_ms);
        this.media_texts.set(name, text);
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
        this.require('three target durations stay listed', gone.length === 0 ||
            after.duration >= 3 * after.target - 0.001, `${name}: ${after.duration}`);
    }

    note_segments(name, list, now_ms) {
        const longest_ms = Math.max(this.longest_ms.get(name) ?? 0, list.duration * 1000);
        this.longest_ms.set(name, longest_ms);
        const listed = new Set(list.segments.map(({uri}) => uri));
        for (const [uri, segment] of this.seen) {
            if (segment.playlist === name && segment.left_ms === undefined && !listed.has(uri))
                segment.left_ms = now_ms;
        }
        for (const segment of list.segments) {
            if (!this.seen.has(segment.uri)) {
                this.seen.set(segment.uri, {...segment, playlist: name});
                this.check_segment(name, segment, list);
            }
        }
    }

    check_segment(name, {uri, sequence, date, duration}, list) {
        let bytes;
        try {
            bytes = readFileSync(join(this.directory, uri));
        } catch (error) {
            this.require('what is listed is there', false, `${name}: ${uri}: ${error.code}`);
            return;
        }
        if (uri.endsWith('.vtt')) {
            this.add(uri, check_webvtt(bytes.toString()));
        } else {
            this.add(uri, check_transport_stream(bytes));
            if (this.h264 && list.independent && this.lead() === name)
                this.require('independent segments begin with an IDR picture', begins_with_idr(bytes), uri);
        }
        // All renditions have the same segments.
        for (const other of this.seen.values()) {
            if (other.sequence === sequence && other.playlist !== name) {
                this.require('all renditions have the same dates and durations',
                    other.date === date && other.duration === duration, `${uri} and ${other.uri}`);
            }
        }
    }

    lead() {
        return this.playlists().reduce((a, b) => (a.length <= b.length ? a : b));
    }

    check_master_version(text) {
        this.masters++;
        this.master_text = text;
        this.add(this.master, check_master(text));
        const parsed = this.parse_strictly(this.master, text);
        if (!parsed)
            return;
        this.require('there is one variant', parsed.variants.length === 1, text);
        const [variant] = parsed.variants;
        this.require('the master is complete', variant.codecs && variant.averageBandwidth > 0 &&
            variant.bandwidth >= variant.averageBandwidth && /CLOSED-CAPTIONS=("|NONE)/.test(text), text);
        if (this.h264)
            this.require('the master tells the picture', variant.resolution?.width > 0 && variant.frameRate > 0, text);
        for (const uri of [...text.matchAll(/URI="([^"]*)"/g)].map(([, uri]) => uri).concat(variant.uri))
            this.require('the master names what is there', existsSync(join(this.directory, uri)), uri);
        this.variant = variant;
    }

    // A segment that has left stays for its own time and that of the longest list that had it.
    check_availability() {
        for (const [uri, {left_ms, duration, playlist}] of this.seen) {
            const hold_ms = duration * 1000 + this.longest_ms.get(playlist);
            const read_before = Date.now();
            const there = existsSync(join(this.directory, uri));
            this.require('what was listed stays fetchable', there ||
                (left_ms !== undefined && read_before >= left_ms + hold_ms), uri);
            if (!there)
                this.seen.delete(uri);
        }
    }

    // Whatever is to be said of the whole at the end.
    finish() {
        this.look();
        const texts = [...this.media_texts].map(([name, text]) => [name, read_media(text)]);
        const ends = texts.map(([, list]) => list.sequence + list.segments.length);
        this.require('all renditions end alike', new Set(ends).size <= 1, texts.map(([name], i) => `${name}: ${ends[i]}`).join(', '));
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
    for (let at = 0; at + packet_bytes <= bytes.length; at += packet_bytes) {
        const pid = (bytes[at + 1] & 0x1f) << 8 | bytes[at + 2];
        if (pid !== 0 && pid !== pmt_pid && pid !== 0x1fff)
            kept.push(bytes.subarray(at, at + packet_bytes));
    }
    return Buffer.concat(kept);
}

export function size_of(directory) {
    return readdirSync(directory).reduce((sum, name) => sum + statSync(join(directory, name)).size, 0);
}
