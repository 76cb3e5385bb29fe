// Players whose every request goes to another of two publishers play on as with one, also when one of
// them is killed, and when it comes back without its state. VORN_BUILD names the build folder. With
// VORN_SECONDS they play for longer, one is killed every 20 s, and Video.js is there too.

import assert from 'node:assert/strict';
import {execFileSync} from 'node:child_process';
import {once} from 'node:events';
import {mkdirSync, readFileSync, rmSync, writeFileSync} from 'node:fs';
import {createServer} from 'node:http';
import {join} from 'node:path';
import {test} from 'node:test';
import {Program, Publisher, scratch_directory} from '../publisher/runs.mjs';
import {read_media} from '../publisher/checker.mjs';
import {judge, launch_browser, watch_buffer} from './browser.mjs';
import {free_port, numbered_pictures, wait_for} from './live_run.mjs';
import {hls_js, open_other_player, other_players} from './other_players.mjs';

const asked_seconds = Number(process.env.VORN_SECONDS ?? 0);
const seconds = asked_seconds || 16; // to be played
const between_kills_s = asked_seconds ? 20 : 6;
const ahead_s = 14; // of the stream, there at once
const rate = 2000000;
const health_every_ms = 200;

const players = [hls_js, ...other_players].filter(({name}) => asked_seconds || name !== 'Video.js');

function stream(directory) {
    const file = join(directory, 'stream.ts');
    execFileSync('ffmpeg', ['-nostdin', '-v', 'error', '-f', 'lavfi', '-i', numbered_pictures(),
        '-f', 'lavfi', '-i', 'sine=frequency=440:sample_rate=48000', '-t', ahead_s + 40 + 2 * seconds,
        '-c:v', 'libx264', '-preset', 'ultrafast', '-tune', 'zerolatency', '-pix_fmt', 'yuv420p',
        '-g', 26, '-keyint_min', 26, '-sc_threshold', 0, '-b:v', '600k', '-c:a', 'aac', '-b:a', '64k',
        '-muxrate', rate, '-f', 'mpegts', file].map(String));
    return readFileSync(file);
}

// In real time, but for what is there at once.
function feed(program, bytes, context) {
    const begun = performance.now();
    let sent = 0;
    const timer = setInterval(() => {
        const due = Math.floor((ahead_s + (performance.now() - begun) / 1000) * rate / 8 / 188) * 188;
        program.feed(bytes.subarray(sent, due));
        sent = due;
    }, 40);
    context.after(() => clearInterval(timer));
}

// One machine: a publisher, and the web server of its directory.
class Machine {
    constructor(directory, name) {
        this.name = name;
        this.output = join(directory, name);
        this.config = join(directory, `${name}.toml`);
        this.healthy = false;
    }

    configure(source, peer, health_port) {
        this.health = `http://127.0.0.1:${health_port}/healthz`;
        writeFileSync(this.config, `output = "${this.output}"\nsegment = 2\nwindow = 24\nnumbers = "stream"\n` +
            `peers = ["${peer}"]\n[http]\nlisten = "127.0.0.1:${health_port}"\n[[rendition]]\nsources = ["${source}"]\n`);
    }

    begin() {
        this.publisher = new Publisher([], this.output, [], {config: this.config});
    }

    async look() {
        this.healthy = await fetch(this.health).then(({ok}) => ok, () => false);
    }
}

// Sends each request to the other machine than the one before, as far as it is healthy or none is, and to
// the other one still where that does not have it. Machines see each other under their names.
async function balance(machines, context) {
    const balancer = {answers: machines.map(() => 0), second_tries: 0};
    let turn = 0;
    const read = (machine, name) => {
        try {
            return readFileSync(join(machine.output, name));
        } catch {
            return null;
        }
    };
    const server = createServer((request, response) => {
        const [, first, ...rest] = request.url.split('/');
        const own = machines.find(({name}) => name === first);
        let body = own && read(own, rest.join('/'));
        if (!own && first === 'live') {
            turn++;
            const some = machines.some(({healthy}) => healthy);
            const able = machines.map((_, i) => (turn + i) % machines.length).filter(i => machines[i].healthy || !some);
            for (const i of able) {
                body = read(machines[i], rest.join('/'));
                if (body) {
                    balancer.answers[i]++;
                    balancer.second_tries += i === able[0] ? 0 : 1;
                    break;
                }
            }
        }
        const type = request.url.endsWith('.m3u8') ? 'application/vnd.apple.mpegurl' : 'video/mp2t';
        response.writeHead(body ? 200 : 404, {'content-type': type, 'cache-control': 'no-store'}).end(body);
    }).listen(0, '127.0.0.1');
    await once(server, 'listening');
    const timer = setInterval(() => machines.forEach(machine => machine.look()), health_every_ms);
    context.after(() => {
        clearInterval(timer);
        server.closeAllConnections();
        server.close();
    });
    balancer.address = `http://127.0.0.1:${server.address().port}`;
    return balancer;
}

test('players go from one publisher to the other at each request, over kills of either', async context => {
    const directory = scratch_directory('balanced');
    const source = join(directory, 'source');
    mkdirSync(source);
    const bytes = stream(directory);
    const machines = ['one', 'other'].map(name => new Machine(directory, name));
    const balancer = await balance(machines, context);
    for (const [i, machine] of machines.entries()) {
        machine.configure(source, `${balancer.address}/${machines[1 - i].name}`, await free_port());
        context.after(() => machine.publisher.kill());
    }
    const program = new Program(source, {name: 'run'});
    context.after(() => program.kill());
    const begin = async machine => {
        machine.begin();
        await wait_for(`the health of ${machine.name}`, 60, () => machine.healthy);
    };
    feed(program, bytes, context);
    await begin(machines[0]);
    await begin(machines[1]);

    const browser = await launch_browser(scratch_directory('browser'));
    context.after(() => browser.close());
    const pages = await Promise.all(players.map(async player => {
        const page = await open_other_player(browser, balancer.address, 'live/index.m3u8', player);
        await page.evaluate(watch_buffer);
        return {name: player.name, page};
    }));
    const shown = ({page}) => page.evaluate(() => notes.frames.length ? notes.frames.at(-1).time - notes.frames[0].time : 0);
    const all_show = time => Promise.all(pages.map(one =>
        wait_for(`${one.name}: ${time} s`, time + 60, async () => await shown(one) > time)));

    await all_show(2);
    await Promise.all(pages.map(({page}) => page.evaluate(() => notes.events = [])));
    let kills = 0;
    for (let time = between_kills_s; time < seconds; time += between_kills_s) {
        await all_show(time);
        const machine = machines[kills++ % 2];
        await machine.publisher.kill();
        rmSync(machine.output, {recursive: true});
        await wait_for('its health', 10, () => !machine.healthy);
        await begin(machine);
    }
    await all_show(seconds);
    const list = read_media(readFileSync(join(machines[0].output, 'main.m3u8'), 'utf8'));
    context.diagnostic(`${kills} kills; answers ${balancer.answers}, ${balancer.second_tries} by the second`);
    for (const {name, page} of pages) {
        const notes = await page.evaluate(() => ({...notes, fatal: player.fatal ?? []}));
        const {stalls, holes, pictures_at_another_time, steps_back, ...rest} = judge(notes);
        context.diagnostic(`${name}: ${JSON.stringify({...rest, stalls})}`);
        assert.deepEqual({fatal: notes.fatal, stalls, holes, pictures_at_another_time, steps_back},
            {fatal: [], stalls: 0, holes: [], pictures_at_another_time: [], steps_back: 0}, name);
    }
    assert.equal(list.segments.filter(({discontinuity}) => discontinuity).length, 0);
    assert.ok(Math.min(...balancer.answers) > 5, 'both were asked');
    for (const {publisher} of machines)
        assert.doesNotMatch(publisher.errors, /viewers must not be sent/);
});
