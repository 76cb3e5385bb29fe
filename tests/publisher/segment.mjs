// What a segment begins with, as far as the rules of a playlist ask for it.

export const packet_bytes = 188;
const picture_bytes = 8192;
const video_types = [0x01, 0x02, 0x1b];
const audio_types = [0x03, 0x04, 0x0f];
export const pts_modulus = 2 ** 33;

export const pid_of = packet => (packet[1] & 0x1f) << 8 | packet[2];
const begins_unit = packet => (packet[1] & 0x40) !== 0;

export function* packets_of(bytes) {
    for (let at = 0; at + packet_bytes <= bytes.length; at += packet_bytes)
        yield bytes.subarray(at, at + packet_bytes);
}

function payload_of(packet) {
    const skipped = 4 + (packet[3] & 0x20 ? 1 + packet[4] : 0);
    return packet[3] & 0x10 ? packet.subarray(Math.min(skipped, packet_bytes)) : packet.subarray(packet_bytes);
}

// The section that begins in the packet; what reaches beyond it is cut off.
function section_of(packet) {
    const payload = payload_of(packet);
    const section = payload.subarray(1 + payload[0]);
    return section.subarray(0, 3 + ((section[1] & 0x0f) << 8 | section[2]) - 4);
}

// The programme's streams as {type, pid}, and what a player is told of them.
function read_pmt(section) {
    const streams = [];
    for (let at = 12 + ((section[10] & 0x0f) << 8 | section[11]); at + 5 <= section.length;) {
        streams.push({type: section[at], pid: (section[at + 1] & 0x1f) << 8 | section[at + 2]});
        at += 5 + ((section[at + 3] & 0x0f) << 8 | section[at + 4]);
    }
    const pcr_pid = (section[8] & 0x1f) << 8 | section[9];
    return {streams, text: [pcr_pid, ...streams.map(({type, pid}) => `${type}:${pid}`)].join(' ')};
}

function pts_of(pes) {
    return (pes[9] & 0x0e) * 2 ** 29 + (pes[10] << 22 | (pes[11] & 0xfe) << 14 | pes[12] << 7 | pes[13] >> 1);
}

// Units of an access unit behind their start codes.
function* units_of(bytes) {
    let begin = -1;
    for (let i = 0; i + 3 < bytes.length; i++) {
        if (bytes[i] !== 0 || bytes[i + 1] !== 0 || bytes[i + 2] !== 1)
            continue;
        if (begin >= 0)
            yield bytes.subarray(begin, i);
        begin = i + 3;
    }
    if (begin >= 0)
        yield bytes.subarray(begin);
}

// Where pictures stand in the segment, from the first packet to behind the last, as {at, end}.
export function video_starts(bytes) {
    let pmt_pid = -1, video_pid = -1, at = 0;
    const starts = [];
    for (const packet of packets_of(bytes)) {
        const pid = pid_of(packet);
        if (pid === 0 && begins_unit(packet)) {
            const pat = section_of(packet);
            pmt_pid = (pat[10] & 0x1f) << 8 | pat[11];
        } else if (pid === pmt_pid && begins_unit(packet)) {
            video_pid = read_pmt(section_of(packet)).streams.find(({type}) => video_types.includes(type))?.pid;
        } else if (pid === video_pid && payload_of(packet).length > 0) {
            if (begins_unit(packet))
                starts.push({at});
            if (starts.length > 0)
                starts.at(-1).end = at + packet_bytes;
        }
        at += packet_bytes;
    }
    return starts;
}

// {pts, idr, streams, sps} of a segment: the time stamp of its first picture, or audio frame; whether that
// is an IDR picture; what the PMT tells; the parameter set, empty where none comes with that picture.
export function read_segment(bytes) {
    let pmt_pid = -1, pmt = null, stream = null;
    const gathered = [];
    let size = 0;
    for (const packet of packets_of(bytes)) {
        const pid = pid_of(packet);
        if (pid === 0 && pmt_pid < 0 && begins_unit(packet)) {
            const pat = section_of(packet);
            pmt_pid = (pat[10] & 0x1f) << 8 | pat[11];
        } else if (pid === pmt_pid && !pmt && begins_unit(packet)) {
            pmt = read_pmt(section_of(packet));
            stream = pmt.streams.find(({type}) => video_types.includes(type)) ??
                pmt.streams.find(({type}) => audio_types.includes(type));
        } else if (stream && pid === stream.pid) {
            if (begins_unit(packet) && gathered.length > 0)
                break;
            if (!begins_unit(packet) && gathered.length === 0)
                continue;
            const payload = payload_of(packet);
            gathered.push(payload);
            size += payload.length;
            if (size >= picture_bytes)
                break;
        }
    }
    if (gathered.length === 0)
        return null;
    const pes = Buffer.concat(gathered);
    const units = stream.type === 0x1b ? [...units_of(pes.subarray(9 + pes[8]))] : [];
    const sps = units.find(unit => (unit[0] & 0x1f) === 7);
    const slice = units.find(unit => [1, 5].includes(unit[0] & 0x1f));
    return {
        pts: pts_of(pes),
        idr: slice !== undefined && (slice[0] & 0x1f) === 5,
        streams: pmt.text,
        sps: sps ? sps.toString('hex').replace(/(00)+$/, '') : '',
    };
}

// In ticks, the short way round the clock.
export function clock_difference(a, b) {
    const ahead = (a - b + pts_modulus) % pts_modulus;
    return ahead > pts_modulus / 2 ? ahead - pts_modulus : ahead;
}

// Cues of a WebVTT segment as {begin, end, text}, on the clock of the stream.
export function read_cues(text) {
    const map = /X-TIMESTAMP-MAP=MPEGTS:(\d+),LOCAL:([\d:.]+)/.exec(text);
    const ms = time => time.split(':').reduce((sum, part) => sum * 60 + Number(part), 0) * 1000;
    return [...text.matchAll(/^([\d:.]+) --> ([\d:.]+).*\n((?:.+\n)*)/gm)].map(([, begin, end, words]) => ({
        begin: Number(map[1]) + (ms(begin) - ms(map[2])) * 90,
        end: Number(map[1]) + (ms(end) - ms(map[2])) * 90,
        text: words,
    }));
}
