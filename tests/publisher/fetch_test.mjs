// Sources on other machines, which a web server offers: what is published of them is what is
// published of a directory here.

import assert from 'node:assert/strict';
import {test} from 'node:test';
import {dice, listed_seconds, presentation, scratch_directory, stream, wait_for, watch_until} from './runs.mjs';
import {Twin, is_back, require_stretch_of, send} from './twins.mjs';
import {WebServer} from './web_server.mjs';

const options = ['--window', 600, '--segment', 4, '--wait', 30, '--listen', '127.0.0.1:0'];

// The last of `count` sources is on another machine.
async function start(context, count) {
    const server = new WebServer(scratch_directory('server'));
    await server.listen();
    context.after(() => server.close());
    const run = presentation('fetch', {
        options: [...options, '--netrc', server.netrc, '--ca-file', server.ca_file], sources: count,
        from: sources => [...sources.slice(0, -1), `${server.address}/remote`],
    });
    context.after(() => run.publisher.kill());
    server.folders.remote = run.sources.at(-1);
    run.server = server;
    run.twins = run.sources.map((source, i) => new Twin(source, 'ab'[i]));
    context.after(() => Promise.all(run.twins.map(twin => twin.program.kill())));
    return run;
}

const metric = async (run, name) =>
    Number(new RegExp(`^vorn_hls_publish_${name}\\{.*source="https.*\\} (.*)$`, 'm').exec((await run.publisher.ask('/metrics')).text)[1]);

// Of the program on another machine, a group of pictures has been fetched, and the fragment behind it.
const delivers = (run, twin) => twin === run.twins.at(-1)
    ? [...run.server.given.keys()].filter(name => name.startsWith(`${twin.letter}${twin.runs - 1}.`)).length >= 2
    : is_back(twin);

test('a program here and one on another machine are killed at any moment: every packet of the encoder once', async context => {
    const bytes = stream({seconds: 90}); // before there is a server, which it would hold up
    const run = await start(context, 2);
    const random = dice(3);
    let kills = 0;
    let down = null;
    await send(run.twins, bytes, async at => {
        run.checker.look();
        if (down && delivers(run, down))
            down = null;
        if (!down && run.twins.every(twin => delivers(run, twin)) && random() < 0.4) {
            down = run.twins[kills++ % 2];
            await down.kill();
        }
    });
    await Promise.all(run.twins.map(twin => twin.program.end()));
    await watch_until(run.checker, 'the whole stream', () => listed_seconds(run.checker) > 75);
    require_stretch_of(run, bytes, 75);
    assert.ok(kills >= 4, `${kills} kills`);
    assert.ok(await metric(run, 'source_gops_total') > 0, 'the other machine was of use');
    context.diagnostic(`${kills} kills; answers by status: ${JSON.stringify(run.server.counts)}`);
});

test('a server whose authority is not known is told; with it, the publisher goes on over kills of its own', async context => {
    const bytes = stream({seconds: 60});
    const run = await start(context, 1);
    const trusting = run.publisher.options;
    await run.publisher.kill();
    run.publisher.options = trusting.slice(0, -2);
    run.publisher.start();
    await run.twins[0].program.feed(bytes.subarray(0, bytes.length / 2));
    await wait_for('the complaint', () => /https:.*: ch1.m3u8: .*certificate/.test(run.publisher.errors));
    assert.deepEqual(run.server.counts, {});
    for (let kills = 0; kills < 4; kills++) {
        await run.publisher.kill();
        run.checker.look();
        run.publisher.options = trusting;
        run.publisher.start();
        await watch_until(run.checker, 'a segment', () => run.checker.list().segments.length > kills);
        if (kills === 0)
            await run.twins[0].program.feed(bytes.subarray(bytes.length / 2));
    }
    await watch_until(run.checker, 'the whole stream', () => listed_seconds(run.checker) > 45);
    require_stretch_of(run, bytes, 45);
    // Each fragment was fetched once, whoever asked for it, but for those that were on their way.
    const fragments = run.twins[0].program.fragments().length;
    const repeated = [...run.server.given].filter(([name, count]) => name.endsWith('.ts') && count > 1);
    assert.ok(repeated.length <= 4, `${repeated} of ${fragments}`);
    assert.ok(run.server.counts[304] > 0, 'lists that are the same are not sent');
});
