// What RFC 8216 asks of playlists, and of the files that they name, as far as a reader can tell. Each
// check gives the rules that are broken as {rule, detail}; `rule` begins with the section.

const media_tags = ['EXTINF', 'EXT-X-BYTERANGE', 'EXT-X-DISCONTINUITY', 'EXT-X-KEY', 'EXT-X-MAP',
    'EXT-X-PROGRAM-DATE-TIME', 'EXT-X-DATERANGE', 'EXT-X-TARGETDURATION', 'EXT-X-MEDIA-SEQUENCE',
    'EXT-X-DISCONTINUITY-SEQUENCE', 'EXT-X-ENDLIST', 'EXT-X-PLAYLIST-TYPE', 'EXT-X-I-FRAMES-ONLY'];
const master_tags = ['EXT-X-MEDIA', 'EXT-X-STREAM-INF', 'EXT-X-I-FRAME-STREAM-INF', 'EXT-X-SESSION-DATA',
    'EXT-X-SESSION-KEY'];
const tags_of_both = ['EXTM3U', 'EXT-X-VERSION', 'EXT-X-INDEPENDENT-SEGMENTS', 'EXT-X-START'];

// How each attribute that may occur is written (section 4.2).
const forms = {
    integer: /^\d{1,20}$/,
    quoted: /^"[^"\r\n]*"$/,
    enumerated: /^[^",\s]+$/,
    resolution: /^\d+x\d+$/,
    decimal: /^\d+(\.\d+)?$/,
    hexadecimal: /^0[xX][0-9A-F]+$/,
    captions: /^("[^"\r\n]*"|NONE)$/,
};
const media_attributes = {
    'TYPE': 'enumerated', 'URI': 'quoted', 'GROUP-ID': 'quoted', 'LANGUAGE': 'quoted', 'NAME': 'quoted',
    'DEFAULT': 'enumerated', 'AUTOSELECT': 'enumerated', 'FORCED': 'enumerated', 'INSTREAM-ID': 'quoted',
};
const date_range_attributes = {
    'ID': 'quoted', 'CLASS': 'quoted', 'START-DATE': 'quoted', 'END-DATE': 'quoted', 'DURATION': 'decimal',
    'PLANNED-DURATION': 'decimal', 'SCTE35-CMD': 'hexadecimal', 'SCTE35-OUT': 'hexadecimal', 'SCTE35-IN': 'hexadecimal',
    'END-ON-NEXT': 'enumerated',
};
const variant_attributes = {
    'BANDWIDTH': 'integer', 'RESOLUTION': 'resolution', 'AUDIO': 'quoted', 'SUBTITLES': 'quoted',
    'CLOSED-CAPTIONS': 'captions', 'AVERAGE-BANDWIDTH': 'integer', 'CODECS': 'quoted', 'FRAME-RATE': 'decimal',
};

class Findings {
    list = [];

    require(rule, holds, detail = '') {
        if (!holds)
            this.list.push({rule, detail});
    }
}

// --- lines -----------------------------------------------------------------------------------------

// Tags as {tag, value}, URIs as {uri}; comments and blank lines are passed over (section 4.1).
function lines_of(text, found) {
    found.require('4.1 no byte order mark', !text.startsWith('\ufeff'));
    found.require('4.1 no control characters', !/[\x00-\x09\x0b\x0c\x0e-\x1f\x7f-\x9f]/.test(text));
    found.require('4.1 the last line is whole', text.endsWith('\n'));
    found.require('4.3.1.1 EXTM3U is the first line', /^#EXTM3U\r?\n/.test(text));
    return text.split(/\r?\n/).filter(line => line !== '' && (!line.startsWith('#') || line.startsWith('#EXT')))
        .map(line => {
            const tag = /^#(EXT[^:]*)(?::(.*))?$/.exec(line);
            return tag ? {tag: tag[1], value: tag[2] ?? ''} : {uri: line};
        });
}

function check_tags(lines, allowed, once, found) {
    for (const {tag} of lines)
        found.require('4.3 only tags of this kind of playlist', !tag || allowed.includes(tag), tag);
    for (const name of once) {
        const count = lines.filter(({tag}) => tag === name).length;
        found.require(`4.3 ${name} at most once`, count <= 1, `${count} times`);
    }
}

function value_of(lines, name) {
    return lines.find(({tag}) => tag === name)?.value;
}

// An attribute list as an object; values as written.
function attributes_of(value, known, found) {
    const attributes = {};
    let rest = value;
    while (rest !== '') {
        const pair = /^([A-Z0-9-]+)=("[^"]*"|[^",]*)(?:,(?=.)|$)/.exec(rest);
        found.require('4.2 an attribute list is pairs with commas between', pair, rest);
        if (!pair)
            break;
        const [whole, name, text] = pair;
        found.require('4.2 an attribute occurs once', !(name in attributes), name);
        found.require('4.2 attributes are of their form', forms[known[name]]?.test(text) ?? true, `${name}=${text}`);
        attributes[name] = text;
        rest = rest.slice(whole.length);
    }
    return attributes;
}

// --- media playlists -------------------------------------------------------------------------------

export function parse_media(text, found = new Findings()) {
    const lines = lines_of(text, found);
    const segments = [];
    let duration = null;
    for (const {tag, value, uri} of lines) {
        if (tag === 'EXTINF') {
            found.require('4.3.2.1 EXTINF is a number and a comma', /^\d+(\.\d+)?,/.test(value), value);
            duration = parseFloat(value);
        } else if (uri) {
            found.require('4.3.2.1 every segment has a duration', duration !== null, uri);
            segments.push({uri, duration});
            duration = null;
        }
    }
    return {
        lines, segments,
        version: Number(value_of(lines, 'EXT-X-VERSION') ?? 1),
        target: Number(value_of(lines, 'EXT-X-TARGETDURATION')),
        sequence: Number(value_of(lines, 'EXT-X-MEDIA-SEQUENCE') ?? 0),
    };
}

export function check_media(text) {
    const found = new Findings();
    const {lines, segments, version, target} = parse_media(text, found);
    check_tags(lines, [...tags_of_both, ...media_tags],
        ['EXTM3U', 'EXT-X-VERSION', 'EXT-X-TARGETDURATION', 'EXT-X-MEDIA-SEQUENCE'], found);
    found.require('4.3.1.2 durations with a fraction need version 3', version >= 3 ||
        segments.every(({duration}) => Number.isInteger(duration)));
    found.require('4.3.3.1 EXT-X-TARGETDURATION is there', Number.isInteger(target));
    for (const {uri, duration} of segments) {
        found.require('4.3.3.1 no segment is longer than the target duration', Math.round(duration) <= target,
            `${uri} lasts ${duration} s, target ${target} s`);
    }
    check_date_ranges(lines, found);
    const first_uri = lines.findIndex(line => line.uri);
    const sequence_at = lines.findIndex(({tag}) => tag === 'EXT-X-MEDIA-SEQUENCE');
    found.require('4.3.3.2 EXT-X-MEDIA-SEQUENCE before the segments', first_uri < 0 || sequence_at < first_uri);
    return found.list;
}

// Date ranges as objects of their attributes.
export function date_ranges_of(lines, found = new Findings()) {
    return lines.filter(({tag}) => tag === 'EXT-X-DATERANGE')
        .map(({value}) => attributes_of(value, date_range_attributes, found));
}

function check_date_ranges(lines, found) {
    const known = new Map();
    for (const range of date_ranges_of(lines, found)) {
        const {ID: id} = range;
        const start = Date.parse(range['START-DATE']?.slice(1, -1));
        found.require('4.3.2.7 a date range has an ID and a START-DATE', id && Number.isFinite(start), JSON.stringify(range));
        const merged = known.get(id) ?? {};
        for (const name of Object.keys(range)) {
            found.require('4.3.2.7 tags with one ID do not contradict each other',
                merged[name] === undefined || merged[name] === range[name], `${id} ${name}`);
        }
        known.set(id, {...merged, ...range});
    }
    for (const [id, range] of known)
        found.require('4.3.2.7.1 an OUT that is over has a DURATION',
            !('SCTE35-OUT' in range && 'SCTE35-IN' in range) || 'DURATION' in range, id);
    found.require('4.3.2.7 date ranges need dates', known.size === 0 ||
        lines.some(({tag}) => tag === 'EXT-X-PROGRAM-DATE-TIME'));
}

// What may become of a live playlist when it is rewritten.
export function check_rewrite(text_before, text_after) {
    const found = new Findings();
    const before = parse_media(text_before);
    const after = parse_media(text_after);
    found.require('6.2.1 the target duration stays', before.target === after.target);
    if (before.segments.length === 0)
        return found.list;
    const removed = after.sequence - before.sequence;
    found.require('6.2.2 the sequence number never falls', removed >= 0);
    const kept = before.segments.slice(Math.max(removed, 0));
    found.require('6.2.1 segments leave at the front and come at the end, and the number tells how many left',
        kept.every(({uri}, i) => after.segments[i]?.uri === uri),
        `${before.sequence}: ${before.segments.map(s => s.uri)} -> ${after.sequence}: ${after.segments.map(s => s.uri)}`);
    found.require('6.2.1 a segment does not change', kept.every(({duration}, i) =>
        after.segments[i]?.duration === duration));
    const length = after.segments.reduce((sum, {duration}) => sum + duration, 0);
    found.require('6.2.2 three target durations stay listed', removed <= 0 || length >= 3 * after.target,
        `${length} s`);
    return found.list;
}

// --- master playlists ------------------------------------------------------------------------------

export function check_master(text) {
    const found = new Findings();
    const lines = lines_of(text, found);
    check_tags(lines, [...tags_of_both, ...master_tags],
        ['EXTM3U', 'EXT-X-VERSION', 'EXT-X-INDEPENDENT-SEGMENTS'], found);

    const renditions = lines.filter(({tag}) => tag === 'EXT-X-MEDIA')
        .map(({value}) => attributes_of(value, media_attributes, found));
    renditions.forEach(rendition => check_rendition(rendition, found));
    check_groups(renditions, found);

    lines.forEach(({tag, value}, i) => {
        if (tag !== 'EXT-X-STREAM-INF')
            return;
        found.require('4.3.4.2 a URI follows EXT-X-STREAM-INF', lines[i + 1]?.uri);
        check_variant(attributes_of(value, variant_attributes, found), renditions, found);
    });
    found.require('4.3.4.2 there is a variant', lines.some(({tag}) => tag === 'EXT-X-STREAM-INF'));
    return found.list;
}

function check_rendition(rendition, found) {
    const {TYPE: type, NAME: name} = rendition;
    found.require('4.3.4.1 TYPE is known', ['AUDIO', 'VIDEO', 'SUBTITLES', 'CLOSED-CAPTIONS'].includes(type), type);
    found.require('4.3.4.1 a rendition has a group', rendition['GROUP-ID'], `${type} ${name}`);
    found.require('4.3.4.1 a rendition has a name', name, type);
    const captions = type === 'CLOSED-CAPTIONS';
    found.require('4.3.4.1 closed captions have INSTREAM-ID, and they alone',
        captions === ('INSTREAM-ID' in rendition), name);
    found.require('4.3.4.1 INSTREAM-ID is a channel',
        !captions || /^"(CC[1-4]|SERVICE([1-9]|[1-5]\d|6[0-3]))"$/.test(rendition['INSTREAM-ID']), name);
    found.require('4.3.4.1 closed captions have no URI', !captions || !('URI' in rendition), name);
    found.require('4.3.4.1 subtitles have a URI', type !== 'SUBTITLES' || 'URI' in rendition, name);
    for (const flag of ['DEFAULT', 'AUTOSELECT', 'FORCED']) {
        found.require('4.3.4.1 flags are YES or NO', ['YES', 'NO', undefined].includes(rendition[flag]),
            `${flag}=${rendition[flag]}`);
    }
    found.require('4.3.4.1 a default may be selected automatically',
        rendition.DEFAULT !== 'YES' || rendition.AUTOSELECT !== 'NO', name);
}

function check_groups(renditions, found) {
    const groups = new Map();
    for (const rendition of renditions) {
        const key = `${rendition.TYPE} ${rendition['GROUP-ID']}`;
        groups.set(key, [...groups.get(key) ?? [], rendition]);
    }
    for (const [key, members] of groups) {
        found.require('4.3.4.1.1 names are unique in a group',
            new Set(members.map(({NAME: name}) => name)).size === members.length, key);
        found.require('4.3.4.1.1 one default in a group',
            members.filter(({DEFAULT: is_default}) => is_default === 'YES').length <= 1, key);
    }
}

function check_variant(variant, renditions, found) {
    found.require('4.3.4.2 BANDWIDTH is there', 'BANDWIDTH' in variant);
    found.require('4.3.4.2 BANDWIDTH is the peak rate', Number(variant.BANDWIDTH) > 0, variant.BANDWIDTH);
    for (const type of ['AUDIO', 'VIDEO', 'SUBTITLES', 'CLOSED-CAPTIONS']) {
        found.require('4.3.4.2 the groups of a variant exist', !(type in variant) || variant[type] === 'NONE' ||
            renditions.some(rendition =>
            rendition.TYPE === type && rendition['GROUP-ID'] === variant[type]), `${type}=${variant[type]}`);
    }
}

// --- segments --------------------------------------------------------------------------------------

const packet_bytes = 188;

function pid_at(bytes, packet) {
    return (bytes[packet * packet_bytes + 1] & 0x1f) << 8 | bytes[packet * packet_bytes + 2];
}

// PMT PIDs that a PAT packet with one whole section names.
function pmt_pids(bytes, packet) {
    const start = packet * packet_bytes;
    const payload = start + 4 + (bytes[start + 3] & 0x20 ? 1 + bytes[start + 4] : 0);
    const section = payload + 1 + bytes[payload];
    const end = section + 3 + ((bytes[section + 1] & 0x0f) << 8 | bytes[section + 2]) - 4;
    const pids = [];
    for (let entry = section + 8; entry + 4 <= Math.min(end, start + packet_bytes); entry += 4) {
        if (bytes[entry] << 8 | bytes[entry + 1])
            pids.push((bytes[entry + 2] & 0x1f) << 8 | bytes[entry + 3]);
    }
    return pids;
}

export function check_transport_stream(bytes) {
    const found = new Findings();
    const packets = Math.floor(bytes.length / packet_bytes);
    found.require('3.2 a segment is whole packets', bytes.length % packet_bytes === 0 && packets > 0);
    let pat_at = -1, pmt_at = -1, pids = [];
    for (let packet = 0; packet < packets; packet++) {
        if (bytes[packet * packet_bytes] !== 0x47) {
            found.require('3.2 a segment is whole packets', false, `packet ${packet}`);
            break;
        }
        const pid = pid_at(bytes, packet);
        if (pid === 0 && pat_at < 0) {
            pat_at = packet;
            pids = pmt_pids(bytes, packet);
        }
        if (pids.includes(pid) && pmt_at < 0)
            pmt_at = packet;
    }
    found.require('3.2 a segment has a PAT and a PMT', pat_at >= 0 && pmt_at >= 0);
    found.require('3.2 a segment begins with its PAT and PMT', pat_at === 0 && pmt_at === 1,
        `packets ${pat_at} and ${pmt_at}`);
    return found.list;
}

export function check_webvtt(text) {
    const found = new Findings();
    found.require('3.5 a WebVTT segment has a WebVTT header', /^WEBVTT[ \t]*\n/.test(text));
    const map = /^X-TIMESTAMP-MAP=.*$/m.exec(text)?.[0];
    found.require('3.5 X-TIMESTAMP-MAP names both clocks', map === undefined ||
        /^X-TIMESTAMP-MAP=(?=.*\bMPEGTS:\d+)(?=.*\bLOCAL:(\d+:)?\d\d:\d\d\.\d{3})/.test(map), map);
    found.require('3.5 cues come with an X-TIMESTAMP-MAP', map !== undefined || !text.includes('-->'));
    for (const line of text.split('\n').filter(line => line.includes('-->'))) {
        const times = /^(?:(\d+):)?\d\d:\d\d\.\d{3} --> (?:(\d+):)?\d\d:\d\d\.\d{3}( .*)?$/.exec(line);
        found.require('WebVTT: a cue has two times', times, line);
        found.require('WebVTT: hours have two digits', !times || [times[1], times[2]].every(hours =>
            hours === undefined || hours.length >= 2), line);
    }
    return found.list;
}
