// Plays the presentation named by ?src= (by default that of scripts/demo) and shows what the program
// does meanwhile: it reads the playlists by itself, besides the player, and asks the web server for
// the size of each fragment, and for those no longer listed whether they still exist. Where the
// publisher is at work, its metrics are there too.
'use strict';

const poll_ms = 500;
const history_length = 60; // points in a chart
const pts_per_second = 90000;

const fragments_before_list = 6; // shown left of the listed ones, where those are few
const segments_shown = 14;       // of a published presentation: the newest

let published = false; // by vorn_hls_publish; else it is the program's own presentation
let twins = false;     // and there is more than one program
let source_url;

const video = document.getElementById('video');
const element = id => document.getElementById(id);

// What the tests look at. `hls` is replaced when the presentation changes in a way that a player
// does not look for.
const player = {video, hls: null, fatal: [], stalls: 0, played: [], loads: 0};
window.player = player;

// --- playlists -------------------------------------------------------------------------------------

// The attributes of a tag as [name, value] pairs; quotes taken off.
function attributes(list) {
    return [...list.matchAll(/([A-Z0-9-]+)=("[^"]*"|[^,]*)/g)]
        .map(([, name, value]) => [name, value.replace(/^"|"$/g, '')]);
}

function parse_master(text) {
    const lines = text.split('\n');
    const of_tag = tag => lines.flatMap((line, at) => line.startsWith(tag) ? [{line: line.slice(tag.length), at}] : []);
    const variants = of_tag('#EXT-X-STREAM-INF:')
        .map(({line, at}) => ({list: attributes(line), uri: lines[at + 1]}));
    if (variants.length === 0)
        return null;
    return {variants, media: of_tag('#EXT-X-MEDIA:').map(({line}) => attributes(line))};
}

function parse_media(text) {
    const fragments = [];
    let tags = {};
    for (const line of text.split('\n')) {
        if (line.startsWith('#EXTINF:')) {
            tags.duration = parseFloat(line.slice('#EXTINF:'.length));
        } else if (line.startsWith('#EXT-X-PROGRAM-DATE-TIME:')) {
            tags.date = new Date(line.slice('#EXT-X-PROGRAM-DATE-TIME:'.length));
        } else if (line === '#EXT-X-DISCONTINUITY') {
            tags.discontinuity = true;
        } else if (line !== '' && !line.startsWith('#')) {
            fragments.push({uri: line, number: number_of(line), ...tags});
            tags = {};
        }
    }
    const target = /^#EXT-X-TARGETDURATION:(\d+)/m.exec(text);
    return {fragments, target: target ? Number(target[1]) : 0};
}

// ch1.00000012.ts: 12
function number_of(uri) {
    const found = /\.(\d{8,})\.ts$/.exec(uri);
    return found ? Number(found[1]) : -1;
}

function uri_of(number, like) {
    return like.replace(/\.\d{8,}\.ts$/, `.${String(number).padStart(8, '0')}.ts`);
}

async function fetch_text(url) {
    const response = await fetch(url, {cache: 'no-store'});
    return response.ok ? response.text() : null;
}

// --- following the program -------------------------------------------------------------------------

const fragments = new Map(); // by number: {number, uri, duration, date, discontinuity, bytes, band}
let newest_number = -1;
let master = null;
let media_url = null;
let renditions_played = null; // what the player read in the master, to notice when there are more
const rates = [];             // {measured, announced}, in bit/s, one per fragment
const latencies = [];

function restarted(media) {
    const first = media.fragments[0];
    return first && newest_number >= 0 && media.fragments.at(-1).number < newest_number;
}

async function ask_size(fragment) {
    const response = await fetch(new URL(fragment.uri, media_url), {method: 'HEAD', cache: 'no-store'});
    return response.ok ? Number(response.headers.get('Content-Length')) : -1;
}

async function follow_fragments(media) {
    if (media.fragments.length === 0)
        return;
    const shown = published ? media.fragments.slice(-segments_shown) : media.fragments;
    if (restarted(media)) {
        fragments.clear();
        newest_number = -1;
        given_up = false;
        stop_player();
    }
    const oldest = shown[0];
    for (const listed of shown) {
        let fragment = fragments.get(listed.number);
        if (!fragment) {
            fragment = {...listed, bytes: await ask_size(listed)};
            fragments.set(listed.number, fragment);
        }
        fragment.band = 'listed';
        if (listed.number > newest_number) {
            newest_number = listed.number;
            note_rate(fragment);
        }
    }
    const before = published ? 0 : fragments_before_list;
    for (let back = 1; back <= before && oldest.number - back >= 0; back++) {
        const number = oldest.number - back;
        const fragment = fragments.get(number) ?? {number, uri: uri_of(number, oldest.uri)};
        if (fragment.band === 'deleted')
            continue;
        fragment.band = await ask_size(fragment) >= 0 ? 'grace' : 'deleted';
        fragments.set(number, fragment);
    }
    for (const number of fragments.keys()) {
        if (number < oldest.number - before)
            fragments.delete(number);
    }
}

function note_rate(fragment) {
    if (fragment.bytes <= 0 || fragment.duration <= 0)
        return;
    const announced = master?.variants[0].list.find(([name]) => name === 'BANDWIDTH')?.[1];
    rates.push({measured: fragment.bytes * 8 / fragment.duration, announced: Number(announced ?? 0)});
    rates.splice(0, rates.length - history_length);
}

async function follow() {
    const text = await fetch_text(source_url);
    if (text === null)
        return;
    master = parse_master(text);
    media_url = master ? new URL(master.variants[0].uri, source_url) : source_url;
    const media_text = master ? await fetch_text(media_url) : text;
    if (media_text === null)
        return;
    const media = parse_media(media_text);
    await follow_fragments(media);

    // Players read the master once. The first caption of a language, and the group that it belongs
    // to, come later.
    const renditions = JSON.stringify(master && [master.media, has_attribute('SUBTITLES')]);
    const playable = media.fragments.length > 0 && (!master || groups_complete());
    if (playable && !given_up && (!player.hls || renditions !== renditions_played)) {
        renditions_played = renditions;
        if (await something_to_play(media.fragments.at(-1).uri))
            start_player();
        else
            give_up(`the video, which is ${unseen}, and there is no sound`);
    }
}

function has_attribute(name) {
    return master.variants[0].list.some(([attribute]) => attribute === name);
}

// For one fragment's time after the first caption, its rendition belongs to no group.
function groups_complete() {
    return master.media.every(list => list.some(([name]) => name === 'GROUP-ID'));
}

// --- the publisher ---------------------------------------------------------------------------------

let metrics = null;     // by name, all series of a name added up
let delays = [];        // {most, count}: how many segments took so many seconds at most
const taken = new Map(); // by source: groups of pictures that were taken from it
let killing = null;     // {at, runs}: what there was when the button was pressed

function parse_metrics(text) {
    const prefix = 'vorn_hls_publish_';
    for (const [, name, source, value] of text.matchAll(/^(\w+)\{.*\bsource="([^"]*)".*\} (\S+)$/gm))
        taken.set(source, name === `${prefix}source_gops_total` ? Number(value) : taken.get(source) ?? 0);
    metrics = new Map();
    const buckets = new Map();
    for (const [, name, labels = '', value] of text.matchAll(/^(\w+)(\{.*\})? (\S+)$/gm)) {
        const most = /\ble="([^"]*)"/.exec(labels);
        const [of, key] = most ? [buckets, most[1]] : [metrics, name.slice(prefix.length)];
        if (!most || name === `${prefix}delay_seconds_bucket`)
            of.set(key, (of.get(key) ?? 0) + Number(value));
    }
    delays = [...buckets].map(([most, count]) => ({most: Number(most.replace('+Inf', 'Infinity')), count}))
        .sort((a, b) => a.most - b.most);
}

async function follow_publisher() {
    const text = await fetch_text(new URL('metrics', location.href));
    if (text === null) {
        tell_publisher('the publisher does not answer', 'bad');
        return;
    }
    parse_metrics(text);
    if (twins) {
        await follow_twins();
    } else if (killing && metrics.get('source_runs_total') > killing.runs) {
        const seconds = (Date.now() - killing.at) / 1000;
        tell_publisher(`killed, and back with a fragment after ${seconds.toFixed(1)} s`);
        set_killing(null);
    }
}

function tell_publisher(text, kind = '') {
    element('publisher-state').textContent = text;
    element('publisher-state').className = kind;
}

function set_killing(now) {
    killing = now;
    element('kill').disabled = now !== null;
}

element('kill').addEventListener('click', async () => {
    set_killing({at: Date.now(), runs: metrics.get('source_runs_total')});
    const response = await fetch(new URL('asked/kill', location.href), {method: 'PUT'}).catch(() => null);
    if (response?.ok) {
        tell_publisher('the program is killed, and started again');
    } else {
        tell_publisher('the web server does not pass it on', 'bad');
        set_killing(null);
    }
});

// The bucket that the segment of this rank is in.
function delay_within(share) {
    const all = delays.at(-1)?.count;
    return all ? delays.find(({count}) => count >= all * share).most : null;
}

function draw_publisher() {
    if (!metrics)
        return;
    const show = (id, name, text) =>
        element(id).textContent = metrics.has(name) ? text(metrics.get(name)) : '\u2013';
    const count = value => String(value);
    show('segment-age', 'newest_segment_age_seconds', value => `${value.toFixed(1)} s`);
    const most = delay_within(0.5);
    element('publish-delay').textContent = most === null ? '\u2013'
        : most === Infinity ? 'over 10 s' : `\u2264 ${most < 1 ? `${most * 1000} ms` : `${most} s`}`;
    show('restarts', 'source_runs_total', runs => count(Math.max(0, runs - taken.size)));
    show('discontinuities', 'discontinuities_total', count);
    show('damaged', 'damaged_gops_total', count);
    show('links', 'linked_segments_total', linked => `${linked} of ${metrics.get('segments_total')}`);
}

// --- twins -----------------------------------------------------------------------------------------

let delivered = []; // segments, as the publisher tells where they came from
let kills = [];     // {time, source}: the last ones, by scripts/demo

// A source is a directory of its own.
function name_of(source) {
    return source.slice(source.lastIndexOf('/') + 1);
}

async function fetch_json(name) {
    return JSON.parse(await fetch_text(new URL(name, location.href)));
}

async function follow_twins() {
    delivered = (await fetch_json('segments')).segments;
    const told = await fetch_json('kills.json');
    kills = told.kills;
    if (killing && !(kills.at(-1)?.time * 1000 >= killing.at))
        return;
    set_killing(null);
    const ago = kills.length && Math.round(Date.now() / 1000 - kills.at(-1).time);
    tell_publisher(kills.length ? `${name_of(kills.at(-1).source)} was killed ${ago} s ago, and started again`
        : `one of them is killed every ${told.every} s anyway, and started again`);
}

// A row for each source over the last minute. The groups of a segment are about as long.
function draw_deliveries() {
    const chart = element('deliveries');
    const {width} = chart.getBoundingClientRect();
    if (width === 0)
        return;
    const [left, right, row, shown_s] = [52, 36, 24, 60];
    const rows = [...taken.keys()].sort();
    const now = Date.now() / 1000;
    const x = time => left + Math.max(0, 1 - (now - time) / shown_s) * (width - left - right);
    const y = source => rows.indexOf(source) * row;
    const nodes = rows.flatMap(source => [
        svg('line', {class: 'grid', x1: left, x2: width - right, y1: y(source) + row / 2, y2: y(source) + row / 2}),
        svg('text', {x: 0, y: y(source) + row / 2 + 4}, name_of(source)),
        svg('text', {x: width, y: y(source) + row / 2 + 4, 'text-anchor': 'end'}, taken.get(source)),
    ]);
    for (const {sequence, date, duration, renditions} of delivered) {
        for (const {sources} of renditions) {
            sources.forEach((source, index) => {
                const begin = new Date(date) / 1000 + duration * index / sources.length;
                const end = begin + duration / sources.length;
                if (end < now - shown_s)
                    return;
                const bar = svg('rect', {class: 'delivered', x: x(begin), y: y(source) + 3,
                    width: Math.max(1, x(end) - x(begin) - 1), height: row - 6, rx: 2});
                bar.append(svg('title', {}, `${name_of(source)}: ${sequence}, ${date}`));
                nodes.push(bar);
            });
        }
    }
    for (const {time, source} of kills.filter(({time}) => time > now - shown_s))
        nodes.push(svg('text', {class: 'killed', x: x(time), y: y(source) + row / 2 + 6, 'text-anchor': 'middle'}, '\u2715'));
    const date = player.hls?.playingDate;
    if (date && date / 1000 > now - shown_s)
        nodes.push(svg('line', {class: 'now-playing', x1: x(date / 1000), x2: x(date / 1000), y1: 0, y2: rows.length * row}));
    chart.setAttribute('height', rows.length * row);
    chart.replaceChildren(...nodes);
    element('stalls').textContent = player.stalls;
}

// --- what is in a fragment -------------------------------------------------------------------------

const audio_types = new Set([0x03, 0x04, 0x0F, 0x11]); // MPEG audio and AAC

// Video by stream_type, ISO/IEC 13818-1 table 2-34. What has no type here is none that hls.js can hand
// to a browser.
const video_types = new Map([
    [0x01, {name: 'MPEG-1'}],
    [0x02, {name: 'MPEG-2'}],
    [0x10, {name: 'MPEG-4 Visual'}],
    [0x1B, {name: 'H.264', type: 'video/mp4; codecs="avc1.42E01E"'}],
    [0x24, {name: 'HEVC', type: 'video/mp4; codecs="hvc1.1.6.L93.B0"'}],
    [0x33, {name: 'VVC'}],
]);

// The sections that begin in packets of this PID, from behind the pointer_field.
function* sections(bytes, pid) {
    for (let at = 0; at + 188 <= bytes.length; at += 188) {
        const packet = bytes.subarray(at, at + 188);
        if (packet[0] !== 0x47 || (packet[1] & 0x5F) !== (0x40 | pid >> 8) || packet[2] !== (pid & 0xFF))
            continue;
        const payload = packet.subarray(packet[3] & 0x20 ? 5 + packet[4] : 4);
        const section = payload.subarray(1 + payload[0]);
        yield section.subarray(0, 3 + ((section[1] & 0x0F) << 8 | section[2]) - 4); // without CRC_32
    }
}

// The stream types of the first programme, as far as they stand in one packet.
function stream_types(bytes) {
    const [pat] = sections(bytes, 0);
    for (let at = 8; pat && at + 4 <= pat.length; at += 4) {
        if (pat[at] === 0 && pat[at + 1] === 0)
            continue; // the network's entry
        const [pmt] = sections(bytes, (pat[at + 2] & 0x1F) << 8 | pat[at + 3]);
        const types = [];
        for (let es = pmt ? 12 + ((pmt[10] & 0x0F) << 8 | pmt[11]) : 0; pmt && es + 5 <= pmt.length;
            es += 5 + ((pmt[es + 3] & 0x0F) << 8 | pmt[es + 4]))
            types.push(pmt[es]);
        return types;
    }
    return [];
}

// Notes what the video is, where this browser cannot show it. A player says nothing when there is no
// sound either.
async function something_to_play(uri) {
    const response = await fetch(new URL(uri, media_url), {headers: {Range: 'bytes=0-999999'}});
    const types = stream_types(new Uint8Array(await response.arrayBuffer()));
    const video = types.map(type => video_types.get(type)).find(found => found);
    unseen = video && !(video.type && MediaSource.isTypeSupported(video.type)) ? video.name : null;
    return !unseen || types.some(type => audio_types.has(type));
}

// --- player ----------------------------------------------------------------------------------------

function tell(text, kind = '') {
    element('state').textContent = text;
    element('state').className = `state ${kind}`;
}

let unseen = null;     // the kind of video that this browser cannot show
let given_up = false;  // it would go wrong again, until another run begins
let recovered_at = -1; // how much had been played when the decoder was last started anew
let clock;             // {time, pts}: the picture with these ticks left the encoder then, in seconds
let zero_pts = null;   // the ticks of the player's time 0, for what is on the screen
const zeros = new Map(); // the same, by the number of the discontinuity
let subtitles = null;  // the name that the user chose, '' for none

function tell_playing() {
    if (unseen)
        tell(`sound only: this browser cannot decode the video, which is ${unseen}`, 'bad');
    else
        tell('live', 'live');
}

function give_up(reason) {
    given_up = true;
    tell(`this browser cannot decode ${reason}`, 'bad');
    stop_player();
}

// One bad spot may upset a decoder; the same again before anything was played would for ever.
function on_fatal_error(error) {
    if (error.type === Hls.ErrorTypes.NETWORK_ERROR) {
        tell(`the player gave up: ${error.details}`, 'bad');
        stop_player(); // and the next poll starts it again
    } else if (error.type === Hls.ErrorTypes.MEDIA_ERROR && recovered_at < player.played.length) {
        recovered_at = player.played.length;
        player.hls.recoverMediaError();
    } else {
        give_up(unseen ? `the video, which is ${unseen}` : `the stream (${error.details})`);
    }
}

function stop_player() {
    player.hls?.destroy();
    player.hls = null;
    renditions_played = null;
}

function start_player() {
    player.hls?.destroy();
    // Captions in the video would cover subtitles, which are mostly the same words.
    const subtitled = master?.media.some(list => list.some(([, value]) => value === 'SUBTITLES'));
    const hls = player.hls = new Hls({liveDurationInfinity: true, enableCEA708Captions: !subtitled});
    player.loads++;
    hls.on(Hls.Events.ERROR, (event, error) => {
        if (error.details === Hls.ErrorDetails.BUFFER_STALLED_ERROR)
            player.stalls++;
        if (!error.fatal)
            return;
        player.fatal.push(error.details);
        on_fatal_error(error);
    });
    hls.on(Hls.Events.INIT_PTS_FOUND, (event, {id, frag, initPTS, timescale}) => {
        if (id !== 'main')
            return;
        zeros.set(frag.cc, initPTS * pts_per_second / timescale);
        zero_pts ??= zeros.get(frag.cc);
    });
    hls.on(Hls.Events.FRAG_CHANGED, (event, {frag}) => {
        player.played.push(frag.sn);
        zero_pts = zeros.get(frag.cc) ?? zero_pts;
        tell_playing();
    });
    hls.on(Hls.Events.AUDIO_TRACKS_UPDATED, fill_audio_menu);
    // The player turns them off behind this event.
    hls.on(Hls.Events.SUBTITLE_TRACKS_UPDATED, () => queueMicrotask(choose_subtitles));
    hls.on(Hls.Events.AUDIO_TRACK_SWITCHED, fill_audio_menu);
    hls.on(Hls.Events.SUBTITLE_TRACK_SWITCH, fill_subtitle_menu);
    // Those events come only where there are tracks.
    fill_audio_menu();
    fill_subtitle_menu();
    hls.loadSource(source_url.href);
    hls.attachMedia(video);
}

function fill_menu(menu, tracks, chosen, none) {
    const options = tracks.map((track, index) => new Option(track.name, index));
    if (none)
        options.unshift(new Option(none, -1));
    menu.replaceChildren(...options);
    menu.value = chosen;
    menu.disabled = tracks.length === 0;
}

function fill_audio_menu() {
    const tracks = player.hls.audioTracks;
    fill_menu(element('audio-menu'), tracks, player.hls.audioTrack, tracks.length ? '' : 'as broadcast');
}

function fill_subtitle_menu() {
    fill_menu(element('subtitle-menu'), player.hls.subtitleTracks, player.hls.subtitleTrack, 'off');
}

// Those that the user chose; before that, the first.
function choose_subtitles() {
    if (!player.hls)
        return;
    const names = player.hls.subtitleTracks.map(track => track.name);
    if (subtitles !== '' && names.length > 0) {
        player.hls.subtitleTrack = Math.max(0, names.indexOf(subtitles));
        player.hls.subtitleDisplay = true;
    }
    fill_subtitle_menu();
}

element('audio-menu').addEventListener('change', event => {
    player.hls.audioTrack = Number(event.target.value);
});
element('subtitle-menu').addEventListener('change', event => {
    const index = Number(event.target.value);
    subtitles = player.hls.subtitleTracks[index]?.name ?? '';
    player.hls.subtitleTrack = index;
    player.hls.subtitleDisplay = true;
});
element('to-live').addEventListener('click', () => {
    if (player.hls?.liveSyncPosition)
        video.currentTime = player.hls.liveSyncPosition;
    video.play();
});

// --- going back ------------------------------------------------------------------------------------

let sought = null; // where the bar is held, on the player's time line

function date_at(position) {
    const fragment = player.hls.latestLevelDetails.fragments
        .findLast(({start, programDateTime}) => programDateTime && start <= position);
    return fragment ? new Date(fragment.programDateTime + (position - fragment.start) * 1000) : null;
}

function draw_seek() {
    const details = player.hls?.latestLevelDetails;
    if (!details)
        return;
    const live = player.hls.liveSyncPosition ?? details.edge;
    const position = sought ?? video.currentTime;
    const bar = element('seek');
    bar.max = live;
    bar.min = details.fragments[0].start;
    bar.value = position;
    const date = date_at(position);
    const behind = live - position;
    const distance = behind < 2 * details.targetduration ? 'live'
        : `${Math.floor(behind / 60)}:${String(Math.floor(behind % 60)).padStart(2, '0')} behind`;
    element('seek-time').textContent = bar.ariaValueText = `${date ? time_of_day(date) : ''} ${distance}`;
}

element('seek').addEventListener('input', event => {
    sought = Number(event.target.value);
    draw_seek();
});
element('seek').addEventListener('change', event => {
    video.currentTime = Number(event.target.value);
    sought = null;
    video.play();
});

// --- drawing ---------------------------------------------------------------------------------------

const svg_namespace = 'http://www.w3.org/2000/svg';

function svg(name, properties, text) {
    const node = document.createElementNS(svg_namespace, name);
    for (const [key, value] of Object.entries(properties))
        node.setAttribute(key, value);
    if (text !== undefined)
        node.textContent = text;
    return node;
}

function html(name, properties = {}, ...children) {
    const node = Object.assign(document.createElement(name), properties);
    node.append(...children);
    return node;
}

// The largest of 1, 2 and 5 times a power of ten that parts `top` into two steps at least.
function scale_step(top) {
    const power = 10 ** Math.floor(Math.log10(top / 2));
    return [5, 2, 1].map(factor => factor * power).find(step => step <= top / 2);
}

// Bars and a line over the same axis, the newest value at the right.
function draw_chart(chart, {bars = [], line = [], unit}) {
    const {width, height} = chart.getBoundingClientRect();
    const highest = Math.max(...bars, ...line);
    if (!(highest > 0) || width === 0)
        return;
    const scale = scale_step(highest);
    const top = Math.ceil(highest * 1.02 / scale) * scale;
    const left = 42; // of the scale's words
    const step = (width - left) / history_length;
    const x = (index, values) => width - (values.length - index) * step;
    const y = value => height - value / top * height;

    const nodes = [];
    for (let value = 0; value <= top * 1.001; value += scale) {
        nodes.push(svg('line', {class: 'grid', x1: left, x2: width, y1: y(value), y2: y(value)}));
        const digits = Math.max(0, -Math.floor(Math.log10(scale)));
        nodes.push(svg('text', {x: left - 5, y: y(value) + 4, 'text-anchor': 'end'}, value.toFixed(digits)));
    }
    bars.forEach((value, index) => nodes.push(svg('rect', {
        class: 'bar', x: x(index, bars), y: y(value), width: step * 0.8, height: height - y(value),
    })));
    const points = line.map((value, index) => `${x(index, line) + step / 2},${y(value)}`);
    nodes.push(svg('polyline', {class: 'line', points: points.join(' ')}));
    nodes.push(svg('text', {x: left + 4, y: 10}, unit));
    chart.replaceChildren(...nodes);
}

function time_of_day(date) {
    return date.toISOString().slice(11, 19);
}

function strip_item({number, duration, date, discontinuity, band, bytes}, extra = '') {
    const name = html('b', {}, published ? String(number).slice(-4) : String(number));
    const length = html('span', {}, duration ? `${duration.toFixed(2)} s` : '\u00a0');
    const title = [number, band, bytes > 0 ? `${bytes} bytes` : '', date?.toISOString() ?? '',
        discontinuity ? 'behind a discontinuity' : ''].filter(text => text !== '').join(', ');
    const item = html('li', {className: `${band} ${extra} ${discontinuity ? 'behind-gap' : ''}`, title}, name, length);
    if (published)
        item.append(html('span', {}, date ? time_of_day(date) : '\u00a0'));
    return item;
}

function draw_strip() {
    if (newest_number < 0)
        return;
    const playing = player.hls ? player.played.at(-1) : -1;
    const items = [...fragments.values()].sort((a, b) => a.number - b.number)
        .map(fragment => strip_item(fragment, fragment.number === playing ? 'playing' : ''));
    if (!published)
        items.push(strip_item({number: newest_number + 1, band: 'writing'}));
    element('strip').replaceChildren(...items);
}

function master_row(kind, pairs) {
    const cell = html('td');
    for (const [name, value] of pairs)
        cell.append(html('span', {}, `${name}\u2009=\u2009`, html('b', {}, value)), ' ');
    return html('tr', {}, html('td', {}, kind), cell);
}

let master_drawn = null;

function draw_master() {
    const state = JSON.stringify(master);
    if (newest_number < 0 || state === master_drawn)
        return;
    master_drawn = state;
    if (!master) {
        element('master').replaceChildren(html('p', {className: 'note'}, 'none: one level only'));
        return;
    }
    const table = html('table');
    for (const {list, uri} of master.variants)
        table.append(master_row('variant', [...list, ['URI', uri]]));
    for (const pairs of master.media)
        table.append(master_row('media', pairs));
    element('master').replaceChildren(table);
}

function buffered_ahead() {
    for (let i = 0; i < video.buffered.length; i++) {
        if (video.buffered.start(i) <= video.currentTime && video.currentTime <= video.buffered.end(i))
            return video.buffered.end(i) - video.currentTime;
    }
    return 0;
}

// How long ago the picture on the screen left the encoder, where its clock is known.
function delay_seconds() {
    if (!clock || zero_pts === null || !player.hls || video.readyState < video.HAVE_CURRENT_DATA)
        return null;
    const shown = zero_pts + video.currentTime * pts_per_second;
    return Date.now() / 1000 - clock.time - (shown - clock.pts) / pts_per_second;
}

function draw_figures() {
    const latency = player.hls?.latency ?? 0;
    if (latency > 0 && !video.paused) {
        latencies.push(latency);
        latencies.splice(0, latencies.length - history_length);
    }
    element('latency').textContent = `${latency.toFixed(1)} s`;
    const delay = delay_seconds();
    element('delay').textContent = delay === null ? 'unknown' : `${delay.toFixed(1)} s`;
    element('buffered').textContent = `${buffered_ahead().toFixed(1)} s`;
    element('picture').textContent =
        video.videoWidth ? `${video.videoWidth}\u00d7${video.videoHeight}` : 'none';
    const date = player.hls?.playingDate;
    element('date').textContent = date ? time_of_day(date) : 'none';
    const quality = video.getVideoPlaybackQuality();
    element('frames').textContent = `${quality.totalVideoFrames - quality.droppedVideoFrames}`;
}

function draw() {
    draw_figures();
    draw_seek();
    draw_strip();
    draw_publisher();
    if (twins)
        draw_deliveries();
    draw_master();
    draw_chart(element('latency-chart'), {line: latencies, unit: 'seconds'});
    draw_chart(element('rate-chart'), {
        bars: rates.map(rate => rate.measured / 1e6),
        line: rates.map(rate => rate.announced / 1e6),
        unit: 'Mbit/s',
    });
}

// --- calculator ------------------------------------------------------------------------------------

// The first keyframe later than `duration` after the one that began the fragment ends it. Times are
// taken as ticks of 90 kHz, as in the stream.
function fragment_length(gop, duration) {
    const gop_ticks = Math.round(gop * 90000);
    return (Math.floor(duration * 90000 / gop_ticks) + 1) * gop_ticks / 90000;
}

// What players make of fragments of `length` seconds under a target of `duration`.
function verdict(length, duration) {
    if (length > 3.5 * duration)
        return ['bad', 'far longer than announced: players that wait 3.5 target durations give up'];
    if (Math.round(length) > duration)
        return ['bad', `longer than the announced ${duration} s: RFC 8216 is not kept, strict players warn`];
    return ['good', 'as RFC 8216 wants them'];
}

function calculate() {
    const gop = Number(element('gop').value);
    const duration = Number(element('duration').value);
    if (!(gop >= 0.01) || !(duration >= 1)) {
        element('verdict').textContent = '';
        return;
    }
    const length = fragment_length(gop, duration);
    const [kind, text] = verdict(length, duration);
    element('verdict').replaceChildren(
        html('b', {}, `fragments of ${length.toFixed(3)} s`), ', ', html('span', {className: kind}, text));
}

element('calculator').addEventListener('input', calculate);
element('calculator').addEventListener('submit', event => event.preventDefault());
calculate();

// --- and round again -------------------------------------------------------------------------------

// scripts/demo leaves it beside the page, for a stream whose encoder it started itself.
async function read_clock() {
    const text = await fetch_text(new URL('clock.json', location.href));
    clock = text && JSON.parse(text);
}

// What only one of the two presentations has is shown with it.
async function look_what_is_there() {
    published = (await fetch(new URL('metrics', location.href), {cache: 'no-store'})).status !== 404;
    const wanted = new URLSearchParams(location.search).get('src');
    source_url = new URL(wanted ?? (published ? 'hls/index.m3u8' : 'hls/ch1.m3u8'), location.href);
    twins = published && (await fetch(new URL('kills.json', location.href), {cache: 'no-store'})).ok;
    if (twins)
        element('kill').textContent = 'Kill one of the programs';
    const there = {program: !published, publisher: published, twins};
    for (const node of document.querySelectorAll('[data-of]'))
        node.hidden = !there[node.dataset.of];
}

async function run() {
    await look_what_is_there();
    for (;;) {
        await follow().catch(() => tell('the web server does not answer', 'bad'));
        if (published)
            await follow_publisher().catch(() => {}); // as above
        if (clock === undefined && player.hls)
            await read_clock().catch(() => {}); // follow() has said so
        draw();
        await new Promise(resolve => setTimeout(resolve, poll_ms));
    }
}

run();
