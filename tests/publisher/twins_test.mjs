// Several programs that read one stream: whatever befalls one of them, players notice nothing as long
// as another delivers.

import assert from 'node:assert/strict';
import {test} from 'node:test';
import {Program, dice, listed_seconds, presentation, stream, wait_for, watch_until} from './runs.mjs';
import {Twin, chunk_bytes, is_back, require_stretch_of, send} from './twins.mjs';

// Waiting for a better group of pictures is for the clock of the machine, which a loaded machine
// stretches.
const options = ['--window', 600, '--segment', 4, '--wait', 30, '--listen', '127.0.0.1:0'];

function start(context, count = 2, more = []) {
    const run = presentation('twins', {options: [...options, ...more], sources: count});
    context.after(() => run.publisher.kill());
    run.twins = run.sources.map((source, i) => new Twin(source, 'abc'[i]));
    context.after(() => Promise.all(run.twins.map(twin => twin.program.kill())));
    return run;
}

test('either program is killed at any moment: no discontinuity, and every packet of the encoder once', async context => {
    const run = start(context);
    const random = dice(11);
    const bytes = stream({seconds: 120});
    let kills = 0;
    let down = null;
    await send(run.twins, bytes, async at => {
        run.checker.look();
        if (down && is_back(down))
            down = null;
        if (!down && at > 3 * 2 ** 20 && random() < 0.4) {
            down = run.twins[kills++ % 2];
            await down.kill();
        }
    });
    await Promise.all(run.twins.map(twin => twin.program.end()));
    await watch_until(run.checker, 'the whole stream', () => listed_seconds(run.checker) > 105);
    require_stretch_of(run, bytes, 105);
    assert.ok(kills >= 6, `${kills} kills`);
    context.diagnostic(`${kills} kills`);
    const {text} = await run.publisher.ask('/metrics');
    for (const source of run.sources)
        assert.match(text, new RegExp(`^vorn_hls_publish_source_gops_total\\{rendition="main",source="${source}"\\} [1-9]`, 'm'));
});

test('what one of them lost is taken from the other', async context => {
    const run = start(context);
    const bytes = stream({seconds: 60});
    // Both deliver before each loses packets of its own in every fourth second.
    const random = dice(5);
    const clean_bytes = 20 * 1330 * 188;
    const damaged = [0, 1].map(which => {
        const kept = [];
        for (let at = 0; at < bytes.length; at += 188) {
            const second = Math.floor(at / 188 / 1330);
            if (at < clean_bytes || second % 4 !== which * 2 || random() > 0.01)
                kept.push(bytes.subarray(at, at + 188));
        }
        return Buffer.concat(kept);
    });
    for (let at = 0; at < bytes.length; at += chunk_bytes) {
        if (at > clean_bytes - chunk_bytes)
            await wait_for('both', () => run.twins.every(twin => twin.program.fragments().length > 4));
        await Promise.all(run.twins.map((twin, i) => twin.program.feed(damaged[i].subarray(at, at + chunk_bytes))));
    }
    await Promise.all(run.twins.map(twin => twin.program.end()));
    await watch_until(run.checker, 'the whole stream', () => listed_seconds(run.checker) > 45);
    assert.match((await run.publisher.ask('/metrics')).text, /^vorn_hls_publish_damaged_gops_total\{rendition="main"\} 0$/m);
    require_stretch_of(run, bytes, 45);
});

test('the publisher is killed too: it goes on with all of its sources', async context => {
    const run = start(context);
    const bytes = stream({seconds: 60});
    let steps = 0;
    await send(run.twins, bytes, async () => {
        run.checker.look();
        if (++steps % 7 !== 0)
            return;
        await run.publisher.kill();
        run.checker.look();
        run.publisher.start();
    });
    await Promise.all(run.twins.map(twin => twin.program.end()));
    await watch_until(run.checker, 'the whole stream', () => listed_seconds(run.checker) > 45);
    require_stretch_of(run, bytes, 45);
});

test('a program with longer fragments that begin elsewhere stands in', async context => {
    const run = start(context);
    const bytes = stream({seconds: 60});
    await run.twins[1].program.kill();
    run.twins[1].program = new Program(run.sources[1], {name: 'long', options: ['--start-pat-pmt', '--frag-duration', 5]});
    await send(run.twins, bytes, async at => {
        if (at > bytes.length / 2 && run.twins[0].runs === 1) {
            run.twins[0].runs++;
            await run.twins[0].program.kill();
        }
    });
    await run.twins[1].program.end();
    await watch_until(run.checker, 'the whole stream', () => listed_seconds(run.checker) > 45);
    require_stretch_of(run, bytes, 45);
});

test('a source of another stream is told, and nothing of it is published', async context => {
    const run = start(context);
    const bytes = stream({seconds: 40});
    const other = stream({seconds: 40, size: '640x360'});
    await run.twins[0].program.feed(bytes);
    await wait_for('the first', () => run.twins[0].program.fragments().length > 20);
    await watch_until(run.checker, 'a beginning', () => listed_seconds(run.checker) > 8);
    await run.twins[1].program.feed(other);
    await wait_for('the complaint', () => run.publisher.errors.includes('it delivers another stream than what is published'));
    await Promise.all(run.twins.map(twin => twin.program.end()));
    await watch_until(run.checker, 'the whole stream', () => listed_seconds(run.checker) > 25);
    require_stretch_of(run, bytes, 25);
    assert.match((await run.publisher.ask('/metrics')).text,
        new RegExp(`^vorn_hls_publish_source_refused\\{rendition="main",source="${run.sources[1]}"\\} 1$`, 'm'));
});
