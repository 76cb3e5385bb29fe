// scripts/demo as someone who tries it sees it: captions can be chosen, the button on its page kills
// the program, and the picture goes on, also in Shaka Player beside it. VORN_SCREENSHOT, if set, names a
// file for a picture of the page after that.

import assert from 'node:assert/strict';
import {spawn} from 'node:child_process';
import {mkdtempSync, readdirSync, rmSync} from 'node:fs';
import {tmpdir} from 'node:os';
import {join} from 'node:path';
import {test} from 'node:test';
import {launch_browser} from './browser.mjs';
import {project_root, wait_for} from './live_run.mjs';
import {open_other_player, other_players} from './other_players.mjs';

const fragment_s = 2.04;

function start_demo(directory) {
    const child = spawn(join(project_root, 'scripts', 'demo'), [],
        {stdio: ['ignore', 'pipe', 'inherit'], env: {...process.env, TMPDIR: directory}});
    const demo = {said: ''};
    child.stdout.on('data', text => demo.said += text);
    const exited = new Promise(resolve => child.once('close', (status, signal) => resolve(signal ?? status)));
    demo.end = () => {
        child.kill('SIGINT');
        return exited;
    };
    return demo;
}

test('the button kills the program, and the picture goes on by itself', async context => {
    const scratch = mkdtempSync(join(tmpdir(), 'vorn-demo-test.'));
    const browser = await launch_browser(mkdtempSync(join(scratch, 'browser.')));
    const before = readdirSync(scratch);
    const demo = start_demo(scratch);
    context.after(async () => {
        await demo.end();
        await browser.close();
        rmSync(scratch, {recursive: true, force: true});
    });
    const address = await wait_for('the address', 600, () => /open (http:\S+)/.exec(demo.said)?.[1]);

    const page = await browser.newPage({viewport: {width: 1100, height: 1130}});
    await page.goto(address);
    await wait_for('the picture', 120, () => page.evaluate(() => player.played.length > 1));
    // Closed captions and a page of teletext, which are in the stream.
    for (const [name, words] of [['English', 'The time is '], ['Spanish', 'Son las ']]) {
        await page.selectOption('#subtitle-menu', {label: name});
        await wait_for(`captions in ${name}`, 60, () => page.evaluate(begin =>
            [...video.textTracks].some(track => track.mode === 'showing' &&
                [...track.activeCues ?? []].some(cue => cue.text.startsWith(begin))), words));
    }
    const loads = await page.evaluate(() => player.loads);
    const shaka_page = await open_other_player(browser, address, 'hls/index.m3u8',
        other_players.find(({name}) => name === 'Shaka Player'));
    await wait_for('the picture in Shaka Player', 120, () => shaka_page.evaluate(() => notes.frames.length > 0));
    const end_of_list = await shaka_page.evaluate(() => player.end_of_list());
    await page.click('#kill');
    await wait_for('two segments behind the discontinuity', 120, () => page.evaluate(() =>
        document.querySelector('.behind-gap ~ .playing')));

    // A fragment that was being written follows in the list, and the next run.
    await wait_for('the next run in Shaka Player', 120, () => shaka_page.evaluate(({end_of_list, fragment_s}) =>
        player.video.currentTime > end_of_list + 2 * fragment_s, {end_of_list, fragment_s}));
    for (const player_page of [page, shaka_page])
        assert.deepEqual(await player_page.evaluate(() => player.fatal), []);
    await shaka_page.close();
    assert.equal(await page.evaluate(() => player.loads), loads);
    const shown = id => page.textContent(`#${id}`);
    assert.equal(await shown('restarts'), '1');
    assert.equal(await shown('discontinuities'), '1');
    assert.equal(await shown('damaged'), '0');
    assert.match(await shown('segment-age'), /^\d+\.\d s$/);
    assert.match(await shown('publish-delay'), /^≤ \d+ m?s$/);
    assert.match(await shown('publisher-state'), /^killed, and back with a fragment after \d+\.\d s$/);
    // The list's dates and the player's own are of the same clock.
    const [date, segment_dates] = await page.evaluate(() => [player.hls.playingDate.toISOString(),
        [...fragments.values()].map(({date}) => date?.toISOString()).filter(date => date).sort()]);
    assert.ok(segment_dates[0] < date && date < new Date().toISOString(), `${date}: ${segment_dates}`);
    assert.match(demo.said, /the program was killed; run 2 begins/);
    if (process.env.VORN_SCREENSHOT)
        await page.screenshot({path: process.env.VORN_SCREENSHOT, fullPage: true});

    await page.setViewportSize({width: 390, height: 844});
    const widths = await page.evaluate(() => [document.documentElement.scrollWidth, innerWidth]);
    assert.ok(widths[0] <= widths[1], `the page is ${widths[0]} wide on a screen of ${widths[1]}`);
    if (process.env.VORN_PHONE_SCREENSHOT)
        await page.screenshot({path: process.env.VORN_PHONE_SCREENSHOT, fullPage: true});

    assert.equal(await demo.end(), 0);
    assert.deepEqual(readdirSync(scratch), before);
});
