// Two publishers of one stream, as on two machines: they list the same segments under the same numbers
// and names, whenever each was started, and say so when they do not.

import assert from 'node:assert/strict';
import {once} from 'node:events';
import {mkdirSync, readFileSync, rmSync, writeFileSync} from 'node:fs';
import {createServer} from 'node:http';
import {join} from 'node:path';
import {test} from 'node:test';
import {Checker, media_packets} from './checker.mjs';
import {Publisher, scratch_directory, stream, wait_for, watch_until} from './runs.mjs';
import {Twin, send} from './twins.mjs';

// What both offer, and what becomes of it on its way.
async function serve(directory, context) {
    const server = {change: (text, path) => text};
    const http = createServer((request, response) => {
        try {
            const body = readFileSync(join(directory, request.url));
            response.end(request.url.endsWith('.m3u8') ? server.change(body.toString(), request.url) : body);
        } catch {
            response.writeHead(404).end();
        }
    }).listen(0, '127.0.0.1');
    await once(http, 'listening');
    context.after(() => {
        http.close();
        http.closeAllConnections();
    });
    server.address = `http://127.0.0.1:${http.address().port}`;
    return server;
}

const settings = ({output, sources, peer, more = ''}) => `output = "${output}"\nsegment = 2\nwindow = 600\n${more}` +
    `numbers = "stream"\npeers = ["${peer}"]\n[http]\nlisten = "127.0.0.1:0"\n` +
    `[[rendition]]\nsources = [${sources.map(source => `"${source}"`)}]\nwait = 30.0\n`;

// Streams are made before: their making would hold up the server.
async function start(context) {
    const directory = scratch_directory('peers');
    const server = await serve(directory, context);
    const sources = ['a', 'b'].map(name => join(directory, name));
    sources.forEach(source => mkdirSync(source));
    const names = ['one', 'other'];
    const publishers = names.map((name, i) => {
        const output = join(directory, name);
        const config = join(directory, `${name}.toml`);
        writeFileSync(config, settings({output, sources, peer: `${server.address}/${names[1 - i]}`}));
        return {output, config, begin() {
            this.checker = new Checker(output);
            this.checker.publisher = this.publisher = new Publisher(sources, output, [], {config});
            context.after(() => this.publisher.kill());
        }};
    });
    const twins = sources.map((source, i) => new Twin(source, 'ab'[i]));
    context.after(() => Promise.all(twins.map(twin => twin.program.kill())));
    return {directory, server, sources, twins, publishers};
}

const last_of = ({checker}) => checker.list().segments.at(-1)?.sequence ?? 0;

// Waits until it lists what the sources have up to the number.
const require_up_to = (publisher, number) =>
    watch_until(publisher.checker, `segment ${number}`, () => last_of(publisher) >= number);

// What both list, they list alike, and the files are the same.
function compare(one, other) {
    const of = ({checker}) => new Map(checker.list().segments.map(segment => [segment.sequence, segment]));
    const [ours, theirs] = [of(one), of(other)];
    const common = [...ours.keys()].filter(number => theirs.has(number));
    for (const number of common) {
        assert.deepEqual(ours.get(number), theirs.get(number));
        const [a, b] = [one, other].map(({checker}) => checker.bytes_of(ours.get(number).uri));
        assert.ok(media_packets(a).equals(media_packets(b)), `segment ${number}`);
    }
    return common;
}

const metric = async ({publisher}, name) =>
    Number(new RegExp(`^vorn_hls_publish_${name}\\{.*peer="http.*\\} (.*)$`, 'm').exec((await publisher.ask('/metrics')).text)[1]);

test('two publishers list the same segments, whenever each was started, over a jump of the clock', async context => {
    const before = stream({seconds: 40});
    const behind = stream({seconds: 30, offset: 300});
    const run = await start(context);
    const [one, other] = run.publishers;
    one.begin();
    await send(run.twins, before.subarray(0, before.length / 2));
    await watch_until(one.checker, 'segments', () => one.checker.list().segments.length >= 3);
    other.begin();
    await send(run.twins, before.subarray(before.length / 2));
    await watch_until(one.checker, 'segments', () => one.checker.list().segments.length >= 12);
    await require_up_to(other, last_of(one));
    const first = compare(one, other);
    assert.ok(first.length >= 10, `${first.length} in common`);
    assert.deepEqual(other.checker.finish(), []);

    await other.publisher.kill();
    await send(run.twins, behind.subarray(0, behind.length * 2 / 3));
    await watch_until(one.checker, 'the jump', () => one.checker.list().segments.slice(0, -4).some(({discontinuity}) => discontinuity));
    rmSync(other.output, {recursive: true});
    // It finds less at the sources than its peer lists, and begins in the middle of a segment.
    for (const {program, source} of run.twins)
        program.fragments().slice(0, -7).forEach(name => rmSync(join(source, name)));
    other.begin();
    await send(run.twins, behind.subarray(behind.length * 2 / 3));
    await Promise.all(run.twins.map(twin => twin.program.end()));
    await watch_until(one.checker, 'all', () => one.checker.list().duration > 58);
    await require_up_to(other, last_of(one));
    const second = compare(one, other);
    assert.ok(second.length >= 4, `${second.length} in common`);
    assert.match(other.publisher.errors, /http.*\/one: the presentation goes on as there, behind segment \d+\n/);
    for (const publisher of run.publishers) {
        assert.deepEqual(publisher.checker.finish(), []);
        await wait_for('the peer', async () => await metric(publisher, 'peer_up') === 1);
        assert.equal(await metric(publisher, 'peer_differs'), 0);
    }
    const {segments} = one.checker.list();
    segments.forEach(({sequence}, i) => assert.equal(sequence, segments[0].sequence + i));
    assert.equal(segments.filter(({discontinuity}) => discontinuity).length, 1);
});

test('behind what only one of two missed its list begins anew, with the numbers of the other', async context => {
    const bytes = stream({seconds: 40});
    const run = await start(context);
    const [one, other] = run.publishers;
    one.begin();
    other.begin();
    await send(run.twins, bytes.subarray(0, bytes.length / 2));
    await watch_until(one.checker, 'segments', () => one.checker.list().segments.length >= 5);
    await require_up_to(other, last_of(one));
    await other.publisher.kill();
    const before = last_of(other);
    await send(run.twins, bytes.subarray(bytes.length / 2));
    await Promise.all(run.twins.map(twin => twin.program.end()));
    await watch_until(one.checker, 'all', () => one.checker.list().duration > 30);
    for (const {program, source} of run.twins)
        program.fragments().slice(0, -16).forEach(name => rmSync(join(source, name)));
    other.begin();
    await require_up_to(other, last_of(one));
    const [{sequence, discontinuity}] = other.checker.list().segments;
    assert.ok(sequence > before + 1, `${sequence} behind ${before}`);
    assert.equal(discontinuity, false);
    const common = compare(one, other);
    assert.ok(common.length >= 4, `${common.length} in common`);
    assert.deepEqual(one.checker.finish(), []);
});

test('a peer that publishes something else is told, and one with another target duration ends the start', async context => {
    const bytes = stream({seconds: 40});
    const run = await start(context);
    const [one, other] = run.publishers;
    one.begin();
    await send(run.twins, bytes);
    await watch_until(one.checker, 'segments', () => one.checker.list().duration > 20);
    run.server.change = (text, path) => path.startsWith('/other/') ? text.replace(/(EXTINF:\d+\.)\d+/g, '$199999') : text;
    other.begin();
    await wait_for('the difference', () => /other: segment \d+: it lasts .* s there and .* s here; viewers must not be sent/
        .test(one.publisher.errors));
    assert.equal(await metric(one, 'peer_differs'), 1);
    run.server.change = text => text;
    await wait_for('the same', () => /other: it publishes the same again\n/.test(one.publisher.errors));
    assert.equal(await metric(one, 'peer_differs'), 0);

    await other.publisher.kill();
    rmSync(other.output, {recursive: true});
    writeFileSync(other.config, settings({output: other.output, sources: run.sources, peer: `${run.server.address}/one`,
        more: 'target_duration = 5\n'}));
    other.begin();
    assert.equal(await other.publisher.exited, 78);
    assert.match(other.publisher.errors, /one: it has a target duration of 4 s and not 5 s\n/);
});
