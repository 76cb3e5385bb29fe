// What five players make of a published presentation while things happen to it:
//
//     node tests/players/measure_players.mjs build/release [EVENT...]
//
// Without events all of them come, one after the other. hls.js, Shaka and Video.js play in a browser,
// VLC and ffmpeg write down what they read. For each event and player it prints whether it came to what
// was sent after the event, for how long it stood still, and for how long its page did not run at all:
// a machine with too much to do shows there.

import {spawn} from 'node:child_process';
import {chmodSync, mkdirSync, readFileSync, statSync} from 'node:fs';
import {join, resolve} from 'node:path';
import {setTimeout as sleep} from 'node:timers/promises';
import {launch_browser, watch_buffer} from './browser.mjs';
import {LiveRun, at_home_in, numbered_pictures, picture, pictures_per_second, tones_hz, wait_for} from './live_run.mjs';
import {hls_js, open_other_player, other_players} from './other_players.mjs';

const build = resolve(process.argv[2]);
const gop = 26;
const settled_s = 35; // after an event: the window, and the delay of the players
const wrap_s = 2 ** 33 / 90000;
const presentation = 'hls/published/index.m3u8';
const binary = name => join(build, 'bin', name);

const run = new LiveRun(build);
const fragments = join(run.hls, 'fragments');
const begun = performance.now();
const elapsed_s = () => (performance.now() - begun) / 1000;
const newest_number = () => Math.round(elapsed_s() * pictures_per_second);

let encoder, prepare, program, publisher;
let runs = 0;
let clock_ahead_s = 10; // of the stream's clock, before the time since the beginning

// From now on this is what comes. The pictures' numbers tell when they were made.
function encode({width = picture.width, tracks = 1} = {}) {
    encoder?.kill('SIGKILL');
    const tones = tones_hz.slice(0, tracks);
    encoder = run.spawn('encoder', 'ffmpeg', ['-nostdin', '-v', 'error', '-re', '-f', 'lavfi', '-i',
        `${numbered_pictures(newest_number())},scale=${width}:-2`,
        ...tones.flatMap(hertz => ['-f', 'lavfi', '-i', `sine=frequency=${hertz}:sample_rate=48000`]),
        ...['v', 'a', 'a'].slice(0, 1 + tracks).flatMap((_, i) => ['-map', i]),
        '-c:v', 'libx264', '-preset', 'ultrafast', '-tune', 'zerolatency', '-pix_fmt', 'yuv420p', '-g', gop,
        '-keyint_min', gop, '-sc_threshold', 0, '-b:v', '600k', '-c:a', 'aac', '-b:a', '64k', '-muxrate', 2000000,
        '-output_ts_offset', (clock_ahead_s + elapsed_s()) % wrap_s, '-f', 'mpegts', 'pipe:1'], {stdout: 'pipe'});
    encoder.stdout.on('data', bytes => prepare.stdin.write(bytes));
}

function start_program() {
    prepare = run.spawn('prepare', binary('vorn_ts_prepare'), ['--keep-time'], {stdin: 'pipe', stdout: 'pipe'});
    prepare.stdin.on('error', () => {}); // it was killed
    program = run.spawn('program', binary('vorn_mpegts_to_hls'), ['--frag-duration', '1', '--frag-backlog', '30',
        '--start-pat-pmt', '--no-padding', '--frag-name', `run${runs++}`], {cwd: fragments, stdin: prepare.stdout});
    prepare.stdout.destroy(); // the program has it
}

function start_publisher() {
    publisher = run.spawn('publisher', binary('vorn_hls_publish'), ['--from', fragments, '--to',
        join(run.hls, 'published'), '--segment', 2, '--window', 30]);
}

async function jump(seconds) {
    clock_ahead_s += seconds;
    encode();
}

const events = {
    nothing: () => {},
    program_killed: async () => {
        program.kill('SIGKILL');
        await program.exited;
        prepare.kill('SIGKILL');
        start_program();
    },
    publisher_killed: async () => {
        publisher.kill('SIGKILL');
        await publisher.exited;
        start_publisher();
    },
    input_paused: async () => {
        encoder.kill('SIGSTOP');
        await sleep(8000);
        encoder.kill('SIGCONT');
    },
    clock_forward_700_s: () => jump(700),
    clock_back_100_s: () => jump(-100),
    // A jump to a little before it, and then the wrap itself.
    clock_wraps: async () => {
        await jump(wrap_s - 20 - (clock_ahead_s + elapsed_s()) % wrap_s);
        await sleep(20000);
    },
    larger_picture: () => encode({width: 2 * picture.width}),
    second_track: () => encode({tracks: 2}),
    encoder_began_anew: () => encode(),
};

// --- players that show -----------------------------------------------------------------------------

function note_errors() {
    notes.errors = [];
    player.hls?.on(Hls.Events.ERROR, (event, {details}) => notes.errors.push(details));
}

async function open_shown(browser) {
    const pages = [];
    for (const other of [hls_js, ...other_players])
        pages.push([other.name, await open_other_player(browser, run.address, presentation, other)]);
    return Promise.all(pages.map(async ([name, page]) => {
        await page.evaluate(watch_buffer);
        await page.evaluate(note_errors);
        return {
            name,
            reset: () => page.evaluate(() => {
                notes.longest_still_s = 0;
                notes.latest_s = 0;
                notes.errors = [];
            }),
            // By the newest of the last pictures, since one read between two numbers shows a mixture.
            state: async event_number => {
                const {frames, ...said} = await page.evaluate(() => ({frames: notes.frames.slice(-25),
                    still_s: notes.longest_still_s, late_s: notes.latest_s, fatal: player.fatal?.length ?? 0,
                    errors: notes.errors, at_s: player.video.currentTime, has_picture_of_s: notes.frames.at(-1)?.time,
                    buffered_s: Array.from(player.video.buffered, (_, i) =>
                        [player.video.buffered.start(i), player.video.buffered.end(i)])}));
                const numbers = frames.map(({number}) => number).sort((a, b) => a - b);
                const newest = numbers[numbers.length >> 1] ?? 0;
                return {...said, behind_s: (newest_number() - newest) / pictures_per_second,
                    went_on: newest > event_number};
            },
        };
    }));
}

// --- players that write down -----------------------------------------------------------------------

const as_nobody = process.getuid() === 0 ? ['setpriv', '--reuid=65534', '--regid=65534', '--clear-groups'] : [];

function start_reader(name, command) {
    const directory = join(run.directory, name);
    mkdirSync(directory);
    chmodSync(directory, 0o777);
    const output = join(directory, 'out.ts');
    const [first, ...rest] = [...as_nobody, ...command(output)];
    const child = spawn(first, rest.map(String), {stdio: 'ignore', env: at_home_in(directory)});
    run.children.push(child);
    child.exited = new Promise(resolve => child.once('close', resolve));
    const size = () => statSync(output, {throwIfNoEntry: false})?.size ?? 0;
    let [bytes, since, still_s] = [0, performance.now(), 0];
    setInterval(() => {
        if (size() !== bytes)
            [bytes, since] = [size(), performance.now()];
        still_s = Math.max(still_s, (performance.now() - since) / 1000);
    }, 100).unref();
    return {
        name,
        reset: () => still_s = 0,
        state: () => ({still_s, fatal: child.exitCode === null ? 0 : 1,
            went_on: performance.now() - since < 8000}),
    };
}

function open_readers() {
    const url = `${run.address}/${presentation}`;
    return [
        start_reader('ffmpeg', output => ['ffmpeg', '-nostdin', '-v', 'error', '-i', url, '-c', 'copy', output]),
        start_reader('VLC', output => ['vlc', '-I', 'dummy', url, '--sout', `#std{access=file,mux=ts,dst=${output}}`]),
    ];
}

// ---------------------------------------------------------------------------------------------------

async function main() {
    mkdirSync(fragments);
    chmodSync(run.directory, 0o755);
    await run.start_nginx();
    start_program();
    encode();
    start_publisher();
    const list = () => {
        try {
            return readFileSync(join(run.hls, 'published', 'main.m3u8'), 'utf8');
        } catch {
            return '';
        }
    };
    await wait_for('five segments', 60, () => (list().match(/^#EXTINF/gm) ?? []).length >= 5);
    const browser = await launch_browser(run.directory);
    const players = [...await open_shown(browser), ...open_readers()];
    await sleep(15000);

    const behind_discontinuity = new Set();
    const look = () => {
        for (const [, uri] of list().matchAll(/^#EXT-X-DISCONTINUITY\n(?:#.*\n)*(.+)$/gm))
            behind_discontinuity.add(uri);
    };
    setInterval(look, 1000).unref();

    const wanted = process.argv.slice(3);
    for (const name of wanted.length > 0 ? wanted : Object.keys(events)) {
        for (const player of players)
            await player.reset();
        behind_discontinuity.clear();
        await events[name]();
        const event_number = newest_number();
        await sleep(settled_s * 1000);
        console.log(`${name}: ${behind_discontinuity.size} DISCONTINUITY listed`);
        for (const player of players) {
            const {went_on, still_s, late_s, behind_s, fatal, ...evidence} = await player.state(event_number);
            console.log(`  ${player.name.padEnd(14)} ${went_on ? 'went on' : 'STANDS '}  still for ${still_s.toFixed(1)} s` +
                (behind_s === undefined ? '' : `, ${behind_s.toFixed(1)} s behind, page late by ${late_s.toFixed(1)} s`) +
                (fatal ? `, ${fatal} fatal` : '') + (went_on ? '' : `\n    ${JSON.stringify(evidence)}`));
        }
    }
    console.log(readFileSync(join(run.directory, 'publisher.log'), 'utf8'));
    await browser.close();
    await run.stop();
}

await main();
process.exit(0); // whatever still reads
