// Chromium with hls.js plays a live run in every mode. Asserted are the player's own figures, and what
// is read off its picture. VORN_BUILD names the build folder.

import assert from 'node:assert/strict';
import {execFileSync} from 'node:child_process';
import {mkdirSync, writeFileSync} from 'node:fs';
import {join} from 'node:path';
import {after, before, test} from 'node:test';
import {figures, launch_browser, loudest_tone, open_player, play_through} from './browser.mjs';
import {base_time, LiveRun, picture, pictures_per_second, tones_hz, wait_for} from './live_run.mjs';
import {open_other_player, other_players, select_subtitles} from './other_players.mjs';

const fragments = 5;          // to be played in a row
const cue_tolerance_s = 0.05;
const tone_tolerance_hz = 20; // the analyser's resolution is 12 Hz

const cases = [
    {mode: 'default', subtitles: ['English', 'Spanish']},
    {mode: 'broadcast_captions', subtitles: ['English', 'Spanish']},
    {mode: 'start_pat_pmt', subtitles: ['English', 'Spanish']},
    {mode: 'separate_streams', subtitles: ['English', 'Spanish'], audio: ['Main', 'SAP']},
    {mode: 'long_gop', subtitles: ['English', 'Spanish']},
    {mode: 'no_multilevel'},
    {mode: 'audio_only', no_picture: true},
    {mode: 'audio_only_multilevel', no_picture: true},
];

let run, browser;

before(async () => {
    run = new LiveRun(process.env.VORN_BUILD);
    browser = await launch_browser(run.directory);
    await run.start([...cases.map(({mode}) => mode), 'mpeg2']);
});

after(async () => {
    await browser?.close();
    await run?.stop();
});

function select_in_menu(page, name) {
    return page.selectOption('#subtitle-menu', {label: name});
}

// The cue that belongs to each picture on the player's time line carries the picture's own time, which
// is read off it.
async function check_captions(page, name, {select = select_in_menu, tolerance_s = cue_tolerance_s} = {}) {
    await select(page, name);
    await page.evaluate(() => { notes.frames = []; });
    const frames = await wait_for(`${name}: cues over three seconds of pictures`, 180, () =>
        page.evaluate(wanted => {
            const with_cue = notes.frames.filter(({active}) => active.length > 0);
            return with_cue.length >= wanted ? notes.frames : null;
        }, pictures_per_second * 3));

    const errors = [];
    for (const {number, time, loaded} of frames) {
        for (const cue of loaded) {
            const moment = number / pictures_per_second - (time - cue.start);
            errors.push(moment - spoken_seconds(cue.text));
        }
    }
    const worst = Math.max(...errors.map(Math.abs));
    assert.ok(worst <= tolerance_s, `${name}: a cue is off by ${worst} s`);

    // What is on the screen follows from that, as soon as the browser gets round to it.
    const lateness = frames.flatMap(({number, active}) =>
        active.map(cue => number / pictures_per_second - spoken_seconds(cue.text)));
    assert.ok(Math.min(...lateness) >= -tolerance_s, `${name}: a cue was shown early`);
    const right = lateness.filter(seconds => seconds < 1 + tolerance_s).length;
    assert.ok(right >= lateness.length * 0.9, `${name}: ${right} of ${lateness.length} pictures had their cue`);
    return {cues: errors.length, worst_ms: Math.round(worst * 1000), right, shown: lateness.length};
}

// "The time is 00:01:02.000.": 62
function spoken_seconds(text) {
    const [, hours, minutes, seconds] = /(\d\d):(\d\d):(\d\d\.\d{3})/.exec(text);
    return hours * 3600 + minutes * 60 + Number(seconds);
}

async function hear(page, frequency) {
    await wait_for(`a tone of ${frequency} Hz`, 120, async () =>
        Math.abs(await loudest_tone(page) - frequency) < tone_tolerance_hz);
}

// The other track is heard once what is buffered of the first has been played.
async function switch_audio(page, names) {
    await hear(page, tones_hz[0]);
    await page.selectOption('#audio-menu', {label: names[1]});
    await hear(page, tones_hz[1]);
    await page.selectOption('#audio-menu', {label: names[0]});
    await hear(page, tones_hz[0]);
}

function announced_size(master) {
    const [, width, height] = /RESOLUTION=(\d+)x(\d+)/.exec(master);
    return {width: Number(width), height: Number(height)};
}

for (const {mode, subtitles = [], audio = [], no_picture = false} of cases) {
    test(mode, async context => {
        await run.ready(mode);
        const page = await open_player(browser, run.address, `hls/${mode}/ch1.m3u8`);
        const played = await play_through(page, fragments);
        const seen = await figures(page);

        assert.deepEqual(seen.subtitle_tracks, subtitles);
        assert.deepEqual(seen.audio_tracks, audio);
        assert.ok(seen.audio_bytes > 0, 'no audio was decoded');
        if (no_picture) {
            assert.equal(seen.video_bytes, 0);
        } else {
            assert.ok(seen.decoded > pictures_per_second * fragments / 2, `${seen.decoded} frames`);
            const size = {width: seen.width, height: seen.height};
            assert.deepEqual(size, picture);
            if (mode !== 'no_multilevel')
                assert.deepEqual(size, announced_size(run.read(mode, 'ch1.m3u8')));
        }
        // The first subtitles are on, without being asked for.
        assert.equal(await page.inputValue('#subtitle-menu'), subtitles.length > 0 ? '0' : '-1');
        for (const name of subtitles)
            context.diagnostic(`${name}: ${JSON.stringify(await check_captions(page, name))}`);
        if (audio.length > 0)
            await switch_audio(page, audio);
        else
            await hear(page, tones_hz[0]);

        const last = await figures(page);
        assert.deepEqual(last.fatal, []);
        assert.equal(last.loads, 1);
        context.diagnostic(`fragments ${played[0]} to ${played.at(-1)}: ${JSON.stringify(last)}`);
        await page.close();
    });
}

for (const other of other_players) {
    test(`captions of the broadcast in ${other.name}`, async context => {
        const mode = 'broadcast_captions';
        await run.ready(mode);
        const page = await open_other_player(browser, run.address, `hls/${mode}/ch1.m3u8`, other);
        const select = (page, name) =>
            wait_for(`${name} in the menu`, 60, () => select_subtitles(page, name));
        for (const name of ['English', 'Spanish'])
            context.diagnostic(`${name}: ${JSON.stringify(
                await check_captions(page, name, {select, tolerance_s: other.tolerance_s}))}`);
        await page.close();
    });
}

test('video that the browser cannot decode, with sound', async () => {
    await run.ready('mpeg2');
    const page = await open_player(browser, run.address, 'hls/mpeg2/ch1.m3u8');
    await play_through(page, 3);
    await hear(page, tones_hz[0]);
    assert.equal(await page.textContent('#state'),
        'sound only: this browser cannot decode the video, which is MPEG-2');
    assert.equal((await figures(page)).loads, 1);
    await page.close();
});

test('video that the browser cannot decode, and nothing else', async () => {
    const directory = join(run.hls, 'silent');
    mkdirSync(directory);
    execFileSync('ffmpeg', ['-v', 'error', '-f', 'lavfi', '-i', 'testsrc2', '-t', '2', '-c:v', 'mpeg2video',
        join(directory, 'ch1.00000000.ts')]);
    writeFileSync(join(directory, 'ch1.m3u8'), '#EXTM3U\n#EXT-X-VERSION:4\n#EXT-X-TARGETDURATION:2\n' +
        '#EXT-X-MEDIA-SEQUENCE:0\n\n#EXTINF:2.000,\nch1.00000000.ts\n\n');
    const page = await browser.newPage();
    await page.goto(`${run.address}/?src=hls/silent/ch1.m3u8`);
    await page.getByText('this browser cannot decode the video, which is MPEG-2, and there is no sound')
        .waitFor({timeout: 120000});
    // It is not tried again, however often the page looks at the playlist.
    for (let look = 0; look < 4; look++)
        await page.waitForRequest(/silent\/ch1\.m3u8$/);
    assert.equal(await page.evaluate(() => player.loads), 0);
    await page.close();
});

test('a phone', async () => {
    const view = {viewport: {width: 360, height: 740}, colorScheme: 'dark'};
    const page = await open_player(browser, run.address, 'hls/separate_streams/ch1.m3u8', view);
    const widths = await page.evaluate(() => [document.documentElement.scrollWidth, innerWidth]);
    assert.ok(widths[0] <= widths[1], `the page is ${widths[0]} wide on a screen of ${widths[1]}`);
    const top = selector => page.locator(selector).evaluate(node => node.getBoundingClientRect().top);
    assert.ok(await top('#strip') < await top('#latency-chart'), 'the charts stand above the fragments');
    if (process.env.VORN_PHONE_SCREENSHOT)
        await page.screenshot({path: process.env.VORN_PHONE_SCREENSHOT, fullPage: true});
    await page.close();
});

test('what the page says', async () => {
    const page = await open_player(browser, run.address, 'hls/default/ch1.m3u8');
    // Keyframe interval, --frag-duration; fragment length, conformance.
    const lengths = [
        [2, 4, '6.000', 'bad'], [2, 3, '4.000', 'bad'], [2.04, 2, '2.040', 'good'], [4, 1, '4.000', 'bad'],
        [1.04, 1, '1.040', 'good'], [0.48, 4, '4.320', 'good'], [0.5, 4, '4.500', 'bad'],
    ];
    for (const [gop, duration, length, kind] of lengths) {
        await page.fill('#gop', String(gop));
        await page.fill('#duration', String(duration));
        const shown = await page.textContent('#verdict');
        assert.ok(shown.includes(`${length} s`), `${gop} s, ${duration}: ${shown}`);
        assert.equal(await page.getAttribute('#verdict span', 'class'), kind, `${gop} s, ${duration}`);
    }
    // Each picture's own number tells when it was made; the page goes by its time stamp.
    const [picture_number, ticks] = await wait_for('a picture', 60, () => page.evaluate(() => {
        const frame = notes.frames.at(-1);
        return frame && zero_pts !== null ? [frame.number, zero_pts + frame.time * pts_per_second] : null;
    }));
    const off = (ticks - base_time) / 90000 - picture_number / pictures_per_second;
    assert.ok(Math.abs(off) < 0.05, `the page takes a picture to be ${off} s older`);
    await wait_for('the delay', 60, async () => /^\d+\.\d s$/.test(await page.textContent('#delay')));
    for (const chart of ['#latency-chart', '#rate-chart']) {
        const scale = (await page.locator(`${chart} text`).allTextContents()).slice(0, -1).map(Number);
        assert.ok(scale.length >= 3 && scale[0] === 0 && scale.every((value, i) => i === 0 || value > scale[i - 1]),
            `${chart}: ${scale}`);
    }
    // 14 fragments: each band is there, the graced ones are three, and those gone are gone.
    await wait_for('every band', 60, async () =>
        await page.locator('#strip .grace').count() === 3 && await page.locator('#strip .deleted').count() > 0);
    assert.equal(await page.locator('#strip .listed').count(), 10);
    assert.match(await page.textContent('#master'), /BANDWIDTH.*RESOLUTION.*320x180/);
    await page.close();
});

// As the web server sends them: never keep a playlist, keep fragments, and show nobody a .tmp file.
test('the web server', async () => {
    const fragment = /^ch1\..*\.ts$/m.exec(run.read('default', 'ch1.m3u8.av.m3u8'))[0];
    const expected = [
        ['ch1.m3u8', 200, 'application/vnd.apple.mpegurl', /no-store/],
        [fragment, 200, 'video/mp2t', /max-age=\d{5}/],
        [`${fragment}.eng.vtt`, 200, 'text/vtt', /max-age=\d{5}/],
        ['.tmp', 403, 'text/html', null],
        ['ch1.m3u8.tmp', 403, 'text/html', null],
    ];
    for (const [name, status, type, caching] of expected) {
        const response = await fetch(`${run.address}/hls/default/${name}`);
        await response.arrayBuffer();
        assert.equal(response.status, status, name);
        assert.equal(response.headers.get('content-type').split(';')[0], type, name);
        if (caching) {
            assert.match(response.headers.get('cache-control'), caching, name);
            assert.equal(response.headers.get('access-control-allow-origin'), '*', name);
        }
    }
});
