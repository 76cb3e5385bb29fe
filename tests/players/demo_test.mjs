// scripts/demo as someone who tries it sees it: captions can be chosen, the button on its page kills
// the program, and the picture goes on, also in Shaka Player beside it; one can go back in it; twins
// stand in for each other. VORN_SCREENSHOT, if set, names a file for a picture of the page after a kill,
// VORN_TWINS_SCREENSHOT one for that of the twins.

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

function start_demo(directory, options = []) {
    const child = spawn(join(project_root, 'scripts', 'demo'), options,
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

// The demo and a page on it, which plays. Whoever has no more use for the demo ends it with end().
async function watch_demo(context, options) {
    const scratch = mkdtempSync(join(tmpdir(), 'vorn-demo-test.'));
    const browser = await launch_browser(mkdtempSync(join(scratch, 'browser.')));
    const before = readdirSync(scratch);
    const demo = start_demo(scratch, options);
    context.after(async () => {
        await demo.end();
        await browser.close();
        rmSync(scratch, {recursive: true, force: true});
    });
    const address = await wait_for('the address', 600, () => /open (http:\S+)/.exec(demo.said)?.[1]);
    const page = await browser.newPage({viewport: {width: 1100, height: 1130}});
    const load = async () => {
        await page.goto(address);
        await wait_for('the picture', 120, () => page.evaluate(() => player.played.length > 1));
    };
    const end = async () => {
        assert.equal(await demo.end(), 0);
        assert.deepEqual(readdirSync(scratch), before);
    };
    await load();
    return {browser, address, page, load, demo, end, shown: id => page.textContent(`#${id}`)};
}

// Runs in the page: stops at a date of the presentation, and says what the picture there looks like.
async function look_at(date) {
    const {start, programDateTime} = player.hls.latestLevelDetails.fragments
        .findLast(({programDateTime}) => programDateTime <= date);
    video.pause();
    const found = new Promise(resolve => video.addEventListener('seeked', resolve, {once: true}));
    video.currentTime = start + (date - programDateTime) / 1000;
    await found;
    await new Promise(resolve => requestAnimationFrame(() => requestAnimationFrame(resolve))); // it is painted
    const [width, height] = [160, 90];
    const context = new OffscreenCanvas(width, height).getContext('2d');
    context.drawImage(video, 0, 0, width, height);
    return context.getImageData(0, 0, width, height).data.join();
}

test('the button kills the program, and the picture goes on by itself', async context => {
    const {browser, address, page, load, demo, end, shown} = await watch_demo(context);
    // In the middle of a picture's time, and of its segment.
    const noted = await page.evaluate(() => player.hls.latestLevelDetails.fragments
        .find(({sn}) => sn === player.played.at(-1)).programDateTime + 1020);
    const seen_live = await page.evaluate(look_at, noted);
    await page.click('#to-live');
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
    await wait_for('two segments behind the discontinuity', 120, () => page.evaluate(() => {
        const listed = player.hls.latestLevelDetails.fragments;
        const behind = listed.find(({cc}) => cc > listed[0].cc);
        return behind && player.played.at(-1) > behind.sn;
    }));

    // A fragment that was being written follows in the list, and the next run.
    await wait_for('the next run in Shaka Player', 120, () => shaka_page.evaluate(({end_of_list, fragment_s}) =>
        player.video.currentTime > end_of_list + 2 * fragment_s, {end_of_list, fragment_s}));
    for (const player_page of [page, shaka_page])
        assert.deepEqual(await player_page.evaluate(() => player.fatal), []);
    await shaka_page.close();
    assert.equal(await page.evaluate(() => player.loads), loads);
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
    assert.match(demo.said, /main: the program was killed; run 2 begins/);
    if (process.env.VORN_SCREENSHOT)
        await page.screenshot({path: process.env.VORN_SCREENSHOT, fullPage: true});

    await page.setViewportSize({width: 390, height: 844});
    const widths = await page.evaluate(() => [document.documentElement.scrollWidth, innerWidth]);
    assert.ok(widths[0] <= widths[1], `the page is ${widths[0]} wide on a screen of ${widths[1]}`);
    if (process.env.VORN_PHONE_SCREENSHOT)
        await page.screenshot({path: process.env.VORN_PHONE_SCREENSHOT, fullPage: true});

    // Another viewer goes back to before the kill, and sees what was live then.
    await load();
    const position = await page.evaluate(date => {
        const begin = player.hls.latestLevelDetails.fragments[0];
        return begin.start + (date - begin.programDateTime) / 1000;
    }, noted);
    await page.fill('#seek', String(Number(position.toFixed(3)))); // as the bar itself writes it
    await wait_for('the time of that picture', 60, async () =>
        /^\d\d:\d\d:\d\d \d+:\d\d behind$/.test(await shown('seek-time')) && page.evaluate(() => !video.seeking));
    assert.equal(await page.evaluate(look_at, noted), seen_live);
    assert.notEqual(await page.evaluate(look_at, noted + 1000), seen_live);
    await page.click('#to-live');
    await wait_for('the live edge', 60, async () => / live$/.test(await shown('seek-time')));
    assert.ok(await page.evaluate(date => player.hls.playingDate > date + 5000, noted));
    await end();
});

test('twins stand in for each other, and the page shows which of them delivered', async context => {
    const {page, end, shown} = await watch_demo(context, ['--twins']);
    await wait_for('both rungs', 60, () => page.evaluate(() => master.variants.length === 2));
    await page.click('#kill');
    await wait_for('the kill', 60, () => page.$('#deliveries .killed'));
    const {time, source} = await page.evaluate(() => kills.at(-1));
    // By the dates of segments, which are those of their arrival.
    const delivered_then = await wait_for('what was delivered then, and its picture', 120, () => page.evaluate(time => {
        const [earliest, latest] = [time - 0.5, time + 0.5].map(seconds => new Date(seconds * 1000).toISOString());
        const then = delivered.filter(({date}, at) => date < latest && delivered[at + 1]?.date > earliest);
        return then.length > 0 && player.played.at(-1) > then.at(-1).sequence ? then : null;
    }, time));
    const [, rung, letter] = /([^/]+)-([ab])$/.exec(source);
    const twin = source.replace(/.$/, letter === 'a' ? 'b' : 'a');
    const sources = delivered_then.flatMap(({renditions}) => renditions.find(({name}) => name === rung).sources);
    assert.ok(sources.includes(twin), `${source} was killed; delivered by ${sources}`);
    assert.deepEqual(await page.evaluate(() => [player.fatal, player.loads]), [[], 1]);
    assert.equal(await shown('discontinuities'), '0');
    const rows = await page.$$eval('#deliveries text:not(.killed)', texts => texts.map(text => text.textContent));
    assert.deepEqual(rows.filter(text => !/^\d+$/.test(text)), ['high-a', 'high-b', 'low-a', 'low-b']);
    assert.match(await shown('publisher-state'), new RegExp(`^${rung}-${letter} was killed \\d+ s ago`));
    if (process.env.VORN_TWINS_SCREENSHOT)
        await page.screenshot({path: process.env.VORN_TWINS_SCREENSHOT, fullPage: true});
    await end();
});
