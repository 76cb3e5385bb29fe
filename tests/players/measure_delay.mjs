// Measures how long it takes from a picture's entry into the program to its appearance in a playlist
// and on a player's screen, for the table in docs/players.md:
//
//     node tests/players/measure_delay.mjs build/release 1 4 8 20
//
// The numbers are megabits per second; name fewer at a time where the machine has other work to do.

import {execFileSync} from 'node:child_process';
import {mkdirSync, readFileSync, watch} from 'node:fs';
import {join} from 'node:path';
import {setTimeout as sleep} from 'node:timers/promises';
import {launch_browser, open_player} from './browser.mjs';
import {LiveRun, numbered_pictures, pictures_per_second} from './live_run.mjs';
import {parse_media} from './rules.mjs';

const rates_mbit_s = process.argv.slice(3).map(Number);
const frag_durations = [2, 4, 6];
const gop = 51; // 2.04 s, so fragments of 2.04, 4.08 and 6.12 s
const seconds = 75;
const durations_played = [2, 4]; // of the last rate, seen in the browser as well

const run = new LiveRun(process.argv[2]);
const results = new Map();
const name_of = (rate, duration) => `${rate}mbit.${duration}s`;

// The time stamp of the first video packet that starts a PES.
function first_video_pts(file) {
    const bytes = readFileSync(file);
    for (let packet = 0; packet + 188 <= bytes.length; packet += 188) {
        const pid = (bytes[packet + 1] & 0x1f) << 8 | bytes[packet + 2];
        if (pid !== 0x100 || !(bytes[packet + 1] & 0x40))
            continue;
        const pes = packet + 4 + (bytes[packet + 3] & 0x20 ? 1 + bytes[packet + 4] : 0);
        return (bytes[pes + 9] & 0x0e) * 2 ** 29 + bytes[pes + 10] * 2 ** 22 + (bytes[pes + 11] & 0xfe) * 2 ** 14 +
            bytes[pes + 12] * 2 ** 7 + (bytes[pes + 13] >> 1);
    }
    throw new Error(`no video in ${file}`);
}

function follow(name, source) {
    const result = {listings: []};
    results.set(name, result);
    watch(run.directory_of(name), (event, file) => {
        if (event !== 'rename' || file !== 'ch1.m3u8.av.m3u8')
            return;
        const {segments} = parse_media(run.read(name, file));
        if (segments.length === 0)
            return;
        const newest = segments.at(-1);
        const began = first_video_pts(join(run.directory_of(name), newest.uri)) / 90000 - source.first_pts;
        result.listings.push({at: (Date.now() - source.began) / 1000, began, duration: newest.duration});
    });
}

function make_file() {
    const file = join(run.directory, 'pictures.ts');
    execFileSync('ffmpeg', ['-nostdin', '-v', 'error', '-t', seconds, '-f', 'lavfi', '-i', numbered_pictures(),
        '-t', seconds, '-f', 'lavfi', '-i', 'sine=frequency=440:sample_rate=48000',
        '-c:v', 'libx264', '-preset', 'ultrafast', '-tune', 'zerolatency', '-pix_fmt', 'yuv420p',
        '-g', gop, '-keyint_min', gop, '-sc_threshold', 0, '-b:v', '600k', '-maxrate', '600k', '-bufsize', '300k',
        '-c:a', 'aac', '-b:a', '64k', '-f', 'mpegts', file].map(String));
    return file;
}

function start_source(rate, file) {
    const programs = frag_durations.map(duration => {
        const name = name_of(rate, duration);
        mkdirSync(run.directory_of(name));
        return run.spawn(name, run.program, ['--frag-duration', duration], {cwd: run.directory_of(name), stdin: 'pipe'});
    });
    const source = {first_pts: first_video_pts(file) / 90000, began: 0};
    const child = run.spawn(`source.${rate}`, 'ffmpeg', ['-nostdin', '-v', 'error', '-re', '-i', file, '-c', 'copy',
        '-copyts', '-muxdelay', 0, '-muxpreload', 0, '-muxrate', rate * 1000000, '-f', 'mpegts', 'pipe:1'],
    {stdout: 'pipe'});
    child.stdout.on('data', bytes => {
        source.began ||= Date.now();
        programs.forEach(program => program.stdin.write(bytes));
    });
    frag_durations.forEach(duration => follow(name_of(rate, duration), source));
    return source;
}

async function watch_player(browser, rate, duration, source) {
    const name = name_of(rate, duration);
    const page = await open_player(browser, run.address, `hls/${name}/ch1.m3u8`);
    await sleep(5000);
    const behind = await page.evaluate(() => {
        const {number} = notes.frames.at(-1);
        return {number, now: Date.now(), edge: player.hls.latency};
    });
    await page.close();
    results.get(name).screen = (behind.now - source.began) / 1000 - behind.number / pictures_per_second;
    results.get(name).edge = behind.edge;
}

try {
    const file = make_file();
    await run.start([]);
    const sources = rates_mbit_s.map(rate => start_source(rate, file));
    const browser = await launch_browser(run.directory);
    const end = Date.now() + (seconds - 5) * 1000;
    await sleep(20000);
    for (const duration of durations_played)
        await watch_player(browser, rates_mbit_s.at(-1), duration, sources.at(-1));
    await browser.close();
    await sleep(Math.max(0, end - Date.now()));

    console.log('Mbit/s | --frag-duration | fragment | first listed | third listed | newest picture listed | on screen | behind the edge');
    for (const [name, {listings, screen, edge}] of results) {
        const delays = listings.map(({at, began, duration}) => at - began - duration).sort((a, b) => a - b);
        const median = delays[Math.floor(delays.length / 2)];
        console.log([name, listings[0]?.duration, listings[0]?.at.toFixed(1), listings[2]?.at.toFixed(1),
            median?.toFixed(2), screen?.toFixed(1) ?? '', edge?.toFixed(1) ?? ''].join(' | '));
    }
} finally {
    await run.stop();
}
process.exit();
