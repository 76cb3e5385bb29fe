// Shaka Player and Video.js on pages of their own, for what they show of the captions; hls.js for its pictures.

import {join} from 'node:path';
import {take_notes} from './browser.mjs';
import {number_bits, picture, project_root} from './live_run.mjs';

const modules = join(project_root, 'tests', 'players', 'node_modules');

// `start` runs in the page and leaves the video element in window.player, with the tracks that can be
// selected, and those with cues where they are not the element's own.
export const other_players = [{
    name: 'Shaka Player',
    tolerance_s: 0.05,
    script: join(modules, 'shaka-player', 'dist', 'shaka-player.compiled.js'),
    async start(url) {
        const video = document.querySelector('video');
        shaka.polyfill.installAll();
        const shaka_player = new shaka.Player();
        const fatal = [];
        shaka_player.addEventListener('error', ({detail}) => {
            if (detail.severity === shaka.util.Error.Severity.CRITICAL)
                fatal.push(detail.code);
        });
        await shaka_player.attach(video);
        await shaka_player.load(url);
        await video.play();
        window.player = {video, fatal, tracks: () => shaka_player.getTextTracks(),
            select: track => shaka_player.selectTextTrack(track),
            end_of_list: () => shaka_player.getManifest().presentationTimeline.getSegmentAvailabilityEnd()};
    },
}, {
    name: 'Video.js',
    tolerance_s: 0.25, // some of its cues were seen 0.2 s off
    script: join(modules, 'video.js', 'dist', 'video.min.js'),
    async start(url) {
        const video_js = videojs(document.querySelector('video'), {muted: true});
        await new Promise(resolve => video_js.ready(resolve));
        video_js.src({src: url, type: 'application/vnd.apple.mpegurl'});
        await video_js.play();
        const tracks = () => Array.from(video_js.textTracks()).filter(({kind}) => kind === 'subtitles');
        const select = wanted => {
            for (const track of tracks())
                track.mode = track === wanted ? 'showing' : 'disabled';
        };
        window.player = {video: document.querySelector('video'), tracks, text_tracks: tracks, select};
    },
}];

// hls.js without the demo's page, which has more to do.
export const hls_js = {
    name: 'hls.js',
    script: join(project_root, 'demo', 'node_modules', 'hls.js', 'dist', 'hls.min.js'),
    async start(url) {
        const video = document.querySelector('video');
        const hls = new Hls();
        const fatal = [];
        hls.on(Hls.Events.ERROR, (event, error) => {
            if (error.fatal)
                fatal.push(error.details);
        });
        window.player = {video, hls, fatal};
        hls.loadSource(url);
        hls.attachMedia(video);
        await video.play();
    },
};

// Opens a page on the presentation, and takes notes of its pictures.
export async function open_other_player(browser, address, presentation, {script, start}) {
    const page = await browser.newPage();
    await page.route('**/other_player', route => route.fulfill({contentType: 'text/html',
        body: '<!doctype html><meta charset="utf-8"><script src="other_player.js"></script>' +
            `<video muted width="${picture.width}" height="${picture.height}"></video>`}));
    await page.route('**/other_player.js', route => route.fulfill({path: script}));
    await page.goto(new URL('other_player', address).href);
    await page.evaluate(start, new URL(presentation, address).href);
    await page.evaluate(take_notes, {number_bits, picture});
    return page;
}

// Shows the subtitles of this name. False while the player has none.
export function select_subtitles(page, name) {
    return page.evaluate(name => {
        const track = player.tracks().find(({label}) => label === name);
        if (track)
            player.select(track);
        return Boolean(track);
    }, name);
}
