// Players go down and up the rungs of a published ladder as the network does, and none of them stalls.
// VORN_BUILD names the build folder.

import assert from 'node:assert/strict';
import {execFileSync} from 'node:child_process';
import {readFileSync} from 'node:fs';
import {join} from 'node:path';
import {test} from 'node:test';
import {Program, ladder, scratch_directory, watch_until} from '../publisher/runs.mjs';
import {launch_browser} from './browser.mjs';
import {project_root, wait_for} from './live_run.mjs';
import {serve} from './page_server.mjs';

const seconds = 80;
const buffered_s = 8; // as little as will do, so that players soon notice
const rungs = [
    {name: 'high', height: 360, kilobits: 1600},
    {name: 'low', height: 180, kilobits: 400},
];
const [high, low] = rungs.map(({height}) => height);
const narrow = 900 * 1000 / 8; // bytes per second: between the two

// As many bits as it says, whatever the pictures are.
function stream({height, kilobits}, directory) {
    const file = join(directory, `${height}.ts`);
    execFileSync('ffmpeg', ['-nostdin', '-v', 'error',
        '-f', 'lavfi', '-i', `testsrc2=size=${height * 16 / 9}x${height}:rate=25`,
        '-f', 'lavfi', '-i', 'sine=frequency=440:sample_rate=48000', '-t', seconds,
        '-c:v', 'libx264', '-preset', 'ultrafast', '-tune', 'zerolatency', '-pix_fmt', 'yuv420p',
        '-g', 26, '-keyint_min', 26, '-sc_threshold', 0, '-b:v', `${kilobits}k`, '-maxrate', `${kilobits}k`,
        '-bufsize', `${kilobits}k`, '-x264-params', 'nal-hrd=cbr:force-cfr=1',
        '-c:a', 'aac', '-b:a', '64k', '-f', 'mpegts', file].map(String));
    return readFileSync(file);
}

const players = [{
    name: 'hls.js',
    script: join(project_root, 'demo', 'node_modules', 'hls.js', 'dist', 'hls.min.js'),
    async start(buffered_s) {
        const hls = new Hls({maxBufferLength: buffered_s, maxMaxBufferLength: buffered_s});
        hls.on(Hls.Events.ERROR, (event, {fatal, details}) => {
            if (fatal)
                notes.errors.push(details);
            else if (details === Hls.ErrorDetails.BUFFER_STALLED_ERROR)
                notes.stalls.push(details);
        });
        hls.loadSource('index.m3u8');
        hls.attachMedia(notes.video);
        await notes.video.play();
    },
}, {
    name: 'Shaka Player',
    script: join(project_root, 'tests', 'players', 'node_modules', 'shaka-player', 'dist', 'shaka-player.compiled.js'),
    async start(buffered_s) {
        shaka.polyfill.installAll();
        const shaka_player = new shaka.Player();
        shaka_player.addEventListener('error', ({detail}) => notes.errors.push(`${detail.code} ${detail.data}`));
        shaka_player.configure({streaming: {bufferingGoal: buffered_s}, abr: {switchInterval: 2}});
        await shaka_player.attach(notes.video);
        await shaka_player.load('index.m3u8');
        await notes.video.play();
    },
}];

// Runs in the page: the heights of the pictures that are shown, each as it changes.
function take_notes() {
    const video = document.querySelector('video');
    window.notes = {video, heights: [], stalls: [], errors: []};
    const on_frame = (now, {height}) => {
        if (height !== notes.heights.at(-1))
            notes.heights.push(height);
        video.requestVideoFrameCallback(on_frame);
    };
    video.requestVideoFrameCallback(on_frame);
    video.addEventListener('waiting', () => notes.stalls.push(`${notes.heights} at ${video.currentTime}`));
}

async function published_ladder(context) {
    const run = ladder(rungs.map(({name}) => name), {settings: 'segment = 2\nwindow = 600\n'});
    context.after(() => run.publisher.kill());
    const programs = run.sources.map(source => new Program(source));
    await Promise.all(programs.map((program, i) => program.feed(stream(rungs[i], run.directory))));
    for (const program of programs)
        assert.equal(await program.end(), 0, program.errors);
    await watch_until(run.checker, 'all', () => run.checker.list().duration > seconds - 5);
    await run.publisher.kill('SIGTERM');
    execFileSync(join(process.env.VORN_BUILD, 'bin', 'vorn_hls_publish'), ['--config', run.publisher.config, '--end']);
    assert.deepEqual(run.checker.finish(), []);
    return run.output;
}

test('players switch down and up in a ladder without a stall', async context => {
    const output = await published_ladder(context);
    const browser = await launch_browser(scratch_directory('browser'));
    context.after(() => browser.close());
    const opened = await Promise.all(players.map(async ({name, script, start}) => {
        const server = await serve(output, script, context);
        const page = await browser.newPage();
        await page.goto(server.address);
        await page.evaluate(take_notes);
        await page.evaluate(start, buffered_s);
        const shown = () => page.evaluate(() => {
            const {buffered, currentTime} = notes.video;
            return {...notes, video: undefined, pieces: buffered.length, ahead: buffered.length && buffered.end(0) - currentTime};
        });
        return {name, page, server, shown};
    }));
    const all_show = (height, when) => Promise.all(opened.map(({name, shown}) =>
        wait_for(`${name}: a height of ${height} ${when}`, 100, async () => (await shown()).heights.at(-1) === height)));

    await all_show(high, 'while nothing holds it up');
    await Promise.all(opened.map(({name, shown}) =>
        wait_for(`${name}: a buffer`, 60, async () => (await shown()).ahead > 0.75 * buffered_s)));
    // A player may begin with its first segment, before it has a second.
    await Promise.all(opened.map(({page}) => page.evaluate(() => notes.stalls = [])));
    opened.forEach(({server}) => server.bytes_per_second = narrow);
    await all_show(low, 'on a narrow line');
    opened.forEach(({server}) => server.bytes_per_second = Infinity);
    await all_show(high, 'when the line is wide again');
    for (const {name, shown} of opened) {
        const {heights, stalls, errors, pieces} = await shown();
        context.diagnostic(`${name}: heights ${heights}, stalls: ${stalls}`);
        assert.deepEqual({errors, stalls, pieces}, {errors: [], stalls: [], pieces: 1}, name);
    }
});
