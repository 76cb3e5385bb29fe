// Shaka plays a published presentation four times as fast from its keyframes alone. VORN_BUILD names the
// build folder.

import assert from 'node:assert/strict';
import {execFileSync} from 'node:child_process';
import {readFileSync} from 'node:fs';
import {join} from 'node:path';
import {test} from 'node:test';
import {read_media} from '../publisher/checker.mjs';
import {Program, listed_seconds, presentation, scratch_directory, watch_until} from '../publisher/runs.mjs';
import {launch_browser, take_notes} from './browser.mjs';
import {number_bits, numbered_pictures, picture, project_root, wait_for} from './live_run.mjs';
import {serve} from './page_server.mjs';

const gop = 26;
const rate = 4;
const keyframes = 6; // to be seen in a row
const shaka_script = join(project_root, 'tests', 'players', 'node_modules', 'shaka-player', 'dist', 'shaka-player.compiled.js');

function numbered_stream(directory) {
    const file = join(directory, 'stream.ts');
    execFileSync('ffmpeg', ['-nostdin', '-v', 'error', '-f', 'lavfi', '-i', numbered_pictures(),
        '-f', 'lavfi', '-i', 'sine=frequency=440:sample_rate=48000', '-t', 40, '-c:v', 'libx264', '-preset', 'ultrafast',
        '-tune', 'zerolatency', '-pix_fmt', 'yuv420p', '-g', gop, '-keyint_min', gop, '-sc_threshold', 0, '-b:v', '500k',
        '-c:a', 'aac', '-b:a', '64k', '-muxrate', 2000000, '-f', 'mpegts', file].map(String));
    return readFileSync(file);
}

test('Shaka plays four times as fast from the keyframes alone', async context => {
    const run = presentation('trick', {options: ['--window', 600, '--segment', 4, '--iframes']});
    context.after(() => run.publisher.kill());
    const program = new Program(run.source, {options: ['--separate-streams', '--start-pat-pmt']});
    await program.feed(numbered_stream(run.directory));
    assert.equal(await program.end(), 0, program.errors);
    await watch_until(run.checker, 'most of it', () => listed_seconds(run.checker) > 30);
    await run.publisher.kill('SIGTERM');
    run.publisher.options.push('--end');
    run.publisher.start();
    assert.equal(await run.publisher.exited, 0, run.publisher.errors);
    assert.deepEqual(run.checker.finish(), []);

    const listed = read_media(run.checker.iframes_texts.get('main.iframes.m3u8')).segments
        .map(({uri, begin, bytes}) => `${uri} ${begin}-${begin + bytes - 1}`);
    const decoded = execFileSync('ffprobe', ['-v', 'error', '-count_frames', '-select_streams', 'v:0', '-show_entries',
        'stream=nb_read_frames', '-of', 'csv=p=0', join(run.output, 'main.iframes.m3u8')], {encoding: 'utf8'});
    assert.equal(parseInt(decoded), listed.length, 'each entry is one picture');

    const {address, ranges} = await serve(run.output, shaka_script, context);
    const browser = await launch_browser(scratch_directory('browser'));
    context.after(() => browser.close());
    const page = await browser.newPage();
    await page.goto(address);
    await page.evaluate(async () => {
        const video = document.querySelector('video');
        shaka.polyfill.installAll();
        const shaka_player = new shaka.Player();
        window.errors = [];
        shaka_player.addEventListener('error', ({detail}) => errors.push(`${detail.code} ${detail.data}`));
        shaka_player.configure({streaming: {bufferingGoal: 4}});
        await shaka_player.attach(video);
        await shaka_player.load('index.m3u8');
        window.player = {video, shaka_player};
        await video.play();
    });
    await page.evaluate(take_notes, {number_bits, picture});
    const seen = () => page.evaluate(() => ({errors, frames: notes.frames, time: player.video.currentTime}));
    await wait_for('pictures', 60, async () => (await seen()).frames.length > 10);
    assert.equal(ranges.length, 0);

    await page.evaluate(rate => {
        notes.frames = [];
        player.shaka_player.trickPlay(rate);
    }, rate);
    // Behind what was buffered before, one picture of each group is shown; while Shaka waits, again.
    const numbers = await wait_for('keyframes', 120, async () => {
        const {errors, frames} = await seen();
        assert.deepEqual(errors, []);
        const behind = frames.findIndex(({number}, i) => i > 0 && number - frames[i - 1].number >= gop);
        const shown = behind < 0 ? [] : frames.slice(behind).map(({number}) => number);
        return new Set(shown).size >= keyframes ? shown : null;
    });
    context.diagnostic(`pictures ${numbers.join(' ')}`);
    assert.ok(numbers.every(number => number % gop === 0), `only keyframes are shown: ${numbers}`);
    assert.ok(numbers.every((number, i) => i === 0 || number >= numbers[i - 1]), `they move on: ${numbers}`);
    assert.ok(ranges.length >= keyframes && ranges.every(range => listed.includes(range)), `${ranges}`);
});
