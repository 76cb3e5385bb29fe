// Debian's Chromium, without a window, on the demo's page.

import {chromium} from 'playwright-core';
import {at_home_in, number_bits, picture, pictures_per_second, wait_for} from './live_run.mjs';

// `directory` is for whatever the browser likes to keep.
export function launch_browser(directory) {
    return chromium.launch({
        executablePath: '/usr/bin/chromium',
        env: at_home_in(directory),
        args: [
            '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
            '--disable-background-networking', '--disable-component-update', '--disable-sync',
            '--autoplay-policy=no-user-gesture-required',
        ],
    });
}

// Opens the page on `presentation`, a path on the page's server, and begins to take notes.
export async function open_player(browser, address, presentation, view = {}) {
    const page = await browser.newPage({viewport: {width: 1100, height: 900}, ...view});
    await page.goto(`${address}/?src=${encodeURIComponent(presentation)}`, {timeout: 180000});
    await wait_for(`${presentation}: a first fragment played`, 180, () =>
        page.evaluate(() => player.played.length > 0));
    await page.evaluate(take_notes, {number_bits, picture});
    return page;
}

// Runs in the page. notes.events: fragments entered and stalls, in order; notes.frames: for each
// picture shown its number as read off it, its place on the player's time line, and the cues that the
// player shows then. Fragments are those of hls.js; other players have none to tell of.
export function take_notes({number_bits, picture}) {
    const {video} = player;
    const notes = window.notes = {events: [], frames: []};
    player.hls?.on(Hls.Events.FRAG_CHANGED, (event, {frag}) => notes.events.push(frag.sn));
    player.hls?.on(Hls.Events.ERROR, (event, error) => {
        if (error.details === Hls.ErrorDetails.BUFFER_STALLED_ERROR)
            notes.events.push('stall');
    });
    video.addEventListener('waiting', () => notes.events.push('stall'));

    const box = picture.width / number_bits;
    const canvas = new OffscreenCanvas(picture.width, box);
    const context = canvas.getContext('2d', {willReadFrequently: true});
    const read_number = () => {
        const scale = video.videoWidth / picture.width;
        context.drawImage(video, 0, 0, video.videoWidth, box * scale, 0, 0, picture.width, box);
        const {data} = context.getImageData(0, 0, picture.width, box);
        let number = 0;
        for (let bit = 0; bit < number_bits; bit++) {
            const pixel = (box / 2) * picture.width + bit * box + box / 2;
            number += data[pixel * 4] > 127 ? 2 ** bit : 0;
        }
        return number;
    };
    const on_frame = (now, {mediaTime}) => {
        const cue_of = cue => ({text: cue.text, start: cue.startTime, end: cue.endTime});
        const tracks = Array.from(player.text_tracks?.() ?? video.textTracks);
        const shown = tracks.filter(track => track.mode === 'showing');
        notes.frames.push({
            number: read_number(),
            time: mediaTime,
            loaded: shown.flatMap(track => Array.from(track.cues ?? []).map(cue_of))
                .filter(cue => cue.start <= mediaTime && mediaTime < cue.end),
            active: shown.flatMap(track => Array.from(track.activeCues ?? []).map(cue_of)),
        });
        video.requestVideoFrameCallback(on_frame);
    };
    video.requestVideoFrameCallback(on_frame);
}

// Pictures are at their time as long as none is missing or comes twice. Not each one that is played is
// seen here on a machine with much to do, and a look that comes late meets the next picture, up to three
// times in a row: what is out of place for so short says nothing. Pictures that stay at another time are
// told by the number of the first, with how many pictures they have moved.
export function judge(notes) {
    const {frames} = notes;
    const place = ({number, time}) => number - time * pictures_per_second;
    const few = 3;
    const median = values => values.sort((a, b) => a - b)[few];
    const places = frames.slice(few, -few).map((frame, i) => median(frames.slice(i, i + 2 * few + 1).map(place)));
    const numbers = new Set(frames.map(({number}) => number));
    const first = Math.min(...numbers);
    const last = Math.max(...numbers);
    const moved = places.slice(1).map((at, i) => [frames[i + few + 1].number, at - places[i]]).filter(([, by]) => Math.abs(by) > 0.5);
    const steps_back = frames.slice(1).filter((frame, i) => frame.time < frames[i].time).length;
    return {
        seconds: Math.round((last - first) / pictures_per_second),
        shown: numbers.size, of: last - first + 1,
        pictures_at_another_time: moved, steps_back,
        holes: notes.holes, stalls: notes.events.filter(event => event === 'stall').length,
    };
}

// Runs in the page. The buffer is one piece as long as nothing is missing in it, whatever the screen shows of it.
export function watch_buffer() {
    notes.holes = []; // where the player was, and the pieces: seconds
    notes.longest_still_s = 0;
    notes.latest_s = 0; // that the page did not run
    notes.positions = []; // each second, {at, what}
    notes.troubles = []; // the same
    const {video} = player;
    const pieces = () => Array.from(video.buffered, (_, i) => [video.buffered.start(i), video.buffered.end(i)]);
    const position = () => `at ${video.currentTime.toFixed(2)}, buffered ` +
        (pieces().map(piece => piece.map(end => end.toFixed(2)).join(' to ')).join(' and ') || 'nothing');
    const trouble = what => notes.troubles.push({at: Date.now(), what: `${what}, ${position()}`});
    let was_one = true;
    let was_still = false;
    let looked = performance.now();
    let [time, since] = [0, looked];
    video.addEventListener('waiting', () => trouble('waiting'));
    setInterval(() => notes.positions.push({at: Date.now(), what: position()}), 1000);
    setInterval(() => {
        const now = performance.now();
        if (now - looked > 500)
            notes.positions.push({at: Date.now(), what: `the page was held up for ${Math.round(now - looked)} ms`});
        notes.latest_s = Math.max(notes.latest_s, (now - looked) / 1000);
        looked = now;
        const is_one = video.buffered.length <= 1;
        if (was_one && !is_one) {
            notes.holes.push([video.currentTime, ...pieces()]);
            trouble('a hole');
        }
        was_one = is_one;
        if (video.currentTime !== time)
            [time, since] = [video.currentTime, now];
        const is_still = now - since > 1000;
        if (is_still && !was_still)
            trouble('it stands still');
        was_still = is_still;
        notes.longest_still_s = Math.max(notes.longest_still_s, (now - since) / 1000);
    }, 100);
}

// Waits until the last `count` + 1 events are fragments one after the other, with no stall between,
// and gives their numbers. A loaded machine may need more than one attempt.
export async function play_through(page, count, seconds = 240) {
    return wait_for(`${count} fragments played without a stall`, seconds, () => page.evaluate(count => {
        const last = notes.events.slice(-(count + 1));
        const in_row = last.every((number, i) => number !== 'stall' && (i === 0 || number === last[i - 1] + 1));
        return last.length === count + 1 && in_row ? last : null;
    }, count));
}

// The player's own figures.
export function figures(page) {
    return page.evaluate(() => {
        const quality = player.video.getVideoPlaybackQuality();
        return {
            fatal: player.fatal,
            loads: player.loads,
            stalls: notes.events.filter(event => event === 'stall').length,
            decoded: quality.totalVideoFrames,
            dropped: quality.droppedVideoFrames,
            audio_bytes: player.video.webkitAudioDecodedByteCount,
            video_bytes: player.video.webkitVideoDecodedByteCount,
            width: player.video.videoWidth,
            height: player.video.videoHeight,
            latency: player.hls.latency,
            audio_tracks: player.hls.audioTracks.map(track => track.name),
            subtitle_tracks: player.hls.subtitleTracks.map(track => track.name),
        };
    });
}

// The frequency that sounds loudest, in hertz.
export function loudest_tone(page) {
    return page.evaluate(async () => {
        if (!window.analyser) {
            const context = new AudioContext();
            window.analyser = context.createAnalyser();
            analyser.fftSize = 4096;
            context.createMediaElementSource(player.video).connect(analyser);
            analyser.connect(context.destination);
            player.video.muted = false;
            await context.resume();
        }
        const levels = new Float32Array(analyser.frequencyBinCount);
        analyser.getFloatFrequencyData(levels);
        const loudest = levels.indexOf(Math.max(...levels));
        return levels[loudest] > -80 ? loudest * analyser.context.sampleRate / analyser.fftSize : 0;
    });
}
