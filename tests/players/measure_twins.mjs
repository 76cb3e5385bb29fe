// Counts what players miss while two programs stand in for each other and are killed in turn:
//
//     node tests/players/measure_twins.mjs build/release 100 [directories]
//
// The number is that of kills, each at a random moment once the other program delivers. The publisher
// follows one of them in its directory, the other over HTTP, as if it ran on another machine; with the
// third word both in their directories. Each picture carries its number, which is read off the screen of
// hls.js, Shaka and Video.js. Where something went wrong, the figures are followed by all that the lists,
// the programs, the publisher and the players did about that time.

import {spawn} from 'node:child_process';
import {mkdirSync, readFileSync, statSync} from 'node:fs';
import {join, resolve} from 'node:path';
import {setTimeout as sleep} from 'node:timers/promises';
import {judge, launch_browser, watch_buffer} from './browser.mjs';
import {Evidence} from './evidence.mjs';
import {LiveRun, numbered_pictures, tones_hz, wait_for} from './live_run.mjs';
import {hls_js, open_other_player, other_players} from './other_players.mjs';

const build = resolve(process.argv[2]);
const kill_count = Number(process.argv[3]);
const is_local = process.argv[4] === 'directories';
const longest_wait_s = 4; // between a program's return and the next kill
const look_ms = 50;
const held_up_ms = 300;
const rate = 4000000;
const gop = 26;

const run = new LiveRun(build);
const evidence = new Evidence();
const twins = ['a', 'b'].map(name => ({name, runs: 0, directory: join(run.hls, name)}));
const discontinuities = new Set(); // segments behind one
const publisher_options = ['--segment', 2, '--window', 20, '--listen', '127.0.0.1:0'];

function start_program(twin) {
    twin.base = `${twin.name}${twin.runs++}`;
    twin.child = spawn(join(build, 'bin', 'vorn_mpegts_to_hls'),
        ['--frag-duration', '1', '--frag-backlog', '30', '--start-pat-pmt', '--frag-name', twin.base],
        {cwd: twin.directory, stdio: ['pipe', 'ignore', 'ignore']});
    twin.child.stdin.on('error', () => {}); // it was killed
    run.children.push(twin.child);
}

// Like a multicast: each program has what comes while it runs.
function start_source() {
    const tone = ['-f', 'lavfi', '-i', `sine=frequency=${tones_hz[0]}:sample_rate=48000`];
    const source = run.spawn('source', 'ffmpeg', ['-nostdin', '-v', 'error', '-re', '-f', 'lavfi', '-i',
        numbered_pictures(), ...tone, '-c:v', 'libx264', '-preset', 'ultrafast', '-tune', 'zerolatency',
        '-pix_fmt', 'yuv420p', '-g', gop, '-keyint_min', gop, '-sc_threshold', 0, '-b:v', '600k',
        '-c:a', 'aac', '-b:a', '64k', '-muxrate', rate, '-f', 'mpegts', 'pipe:1'], {stdout: 'pipe'});
    source.stdout.on('data', bytes => twins.forEach(twin => twin.child.stdin.write(bytes)));
}

function read(directory, name) {
    try {
        return readFileSync(join(run.hls, directory, name), 'utf8');
    } catch {
        return '';
    }
}

// Each time that a list is another one: what it ends with.
const lists = [...twins.map(({name}) => ({directory: name, name: 'ch1.m3u8.av.m3u8'})),
    {directory: 'twins', name: 'main.m3u8', is_published: true}];

function look_at_list(list) {
    const text = read(list.directory, list.name);
    if (text === '' || text === list.text)
        return;
    list.text = text;
    const listed = [...text.matchAll(/^#EXTINF:([\d.]+),\n(?:#.*\n)*(.+)/gm)];
    const [, seconds, last] = listed.at(-1) ?? [];
    const {mtimeMs: at} = statSync(join(run.hls, list.directory, list.name));
    evidence.note(list.directory, `lists ${listed.length}, at last ${last} of ${seconds} s`, at);
    if (list.is_published) {
        for (const [, uri] of text.matchAll(/^#EXT-X-DISCONTINUITY\n(?:#.*\n)*(.+)$/gm)) {
            if (!discontinuities.has(uri))
                evidence.trouble(list.directory, `a discontinuity before ${uri}`, at);
            discontinuities.add(uri);
        }
        note_sources();
    }
}

// From which source how many groups were published so far.
async function note_sources() {
    const port = run.log_of('publisher').match(/listening on port (\d+)/)[1];
    const text = await fetch(`http://127.0.0.1:${port}/metrics`).then(answer => answer.text(), () => '');
    const gops = twins.map(({name}) =>
        `${text.match(new RegExp(`^vorn_hls_publish_source_gops_total.*/${name}"\\} (\\d+)$`, 'm'))?.[1]} of ${name}`);
    evidence.note('publisher', `has published ${gops.join(', ')}`);
}

// The publisher's own lines, and whether this process was held up, as others may have been.
let [told_bytes, looked_ms] = [0, Date.now()];

function look_around() {
    const now = Date.now();
    if (now - looked_ms > held_up_ms)
        evidence.note('machine', `nothing was seen here for ${now - looked_ms} ms`);
    looked_ms = now;
    lists.forEach(look_at_list);
    const told = run.log_of('publisher');
    for (const line of told.slice(told_bytes).split('\n').filter(Boolean))
        evidence.note('publisher', line);
    told_bytes = told.length;
}

// Two fragments of its run are listed: over HTTP the first waits for the second.
const delivers = twin => [...read(twin.name, 'ch1.m3u8.av.m3u8').matchAll(/^(.+)\.\d+\.ts$/gm)]
    .filter(([, base]) => base === twin.base).length >= 2;

const served = name => read('twins', name);

async function main() {
    await run.start_nginx();
    for (const twin of twins) {
        mkdirSync(twin.directory);
        start_program(twin);
    }
    start_source();
    const second = is_local ? twins[1].directory : `${run.address}/hls/${twins[1].name}`;
    const from = [twins[0].directory, second].flatMap(source => ['--from', source]);
    run.spawn('publisher', join(build, 'bin', 'vorn_hls_publish'),
        [...from, '--to', join(run.hls, 'twins'), ...publisher_options]);
    const looking = setInterval(look_around, look_ms);
    await wait_for('four segments', 120, () => (served('main.m3u8').match(/^#EXTINF/gm) ?? []).length >= 4);

    const browser = await launch_browser(run.directory);
    const pages = new Map();
    for (const other of [hls_js, ...other_players])
        pages.set(other.name, await open_other_player(browser, run.address, 'hls/twins/index.m3u8', other));
    for (const page of pages.values())
        await page.evaluate(watch_buffer);

    for (let kills = 0; kills < kill_count; kills++) {
        const twin = twins[kills % twins.length];
        await wait_for('both programs', 60, () => twins.every(delivers));
        await sleep(Math.random() * longest_wait_s * 1000);
        evidence.note(twin.name, `killed in its run ${twin.base}`);
        twin.child.kill('SIGKILL');
        await new Promise(resolve => twin.child.once('close', resolve));
        start_program(twin);
        if (kills % 10 === 9)
            console.log(`${kills + 1} kills`);
    }
    // What came last has to reach the screens.
    await sleep(15000);
    clearInterval(looking);

    const results = {kills: kill_count, discontinuities: discontinuities.size, players: {}};
    for (const [name, page] of pages) {
        const notes = await page.evaluate(() => ({...notes, dropped: player.video.getVideoPlaybackQuality().droppedVideoFrames,
            fatal: player.fatal?.length ?? 0}));
        results.players[name] = {...judge(notes), longest_still_s: notes.longest_still_s,
            dropped_by_the_screen: notes.dropped, fatal: notes.fatal};
        notes.positions.forEach(({at, what}) => evidence.note(name, what, at));
        notes.troubles.forEach(({at, what}) => evidence.trouble(name, what, at));
    }
    console.log(JSON.stringify(results, null, 1));
    console.log(run.log_of('publisher'));
    console.log(evidence.lines().join('\n'));
    await browser.close();
    await run.stop();
}

await main();
process.exit(0); // whatever still reads
