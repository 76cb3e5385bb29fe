// Calls that fail, a full disk, directories that go away, sources full of nonsense: a line for the
// operator, nothing listed that is not there, and the presentation goes on when the cause is gone.

import assert from 'node:assert/strict';
import {cpSync, mkdirSync, readFileSync, readdirSync, renameSync, rmSync, writeFileSync} from 'node:fs';
import {join} from 'node:path';
import {before, test} from 'node:test';
import {media_packets} from './checker.mjs';
import {packets_of} from './segment.mjs';
import {Program, listed_seconds, presentation, scratch_directory, stream, wait_for, watch_until} from './runs.mjs';

const options = ['--window', 600, '--segment', 2, '--listen', '127.0.0.1:0'];
const preload = join(process.env.VORN_BUILD, 'lib', 'libfailing_calls.so');
const numbers = {EIO: 5, EMFILE: 24, ENOSPC: 28, EROFS: 30, EXDEV: 18};
let ready; // a directory with a run that has ended

before(async () => {
    ready = join(scratch_directory('ready'), 'source');
    const program = new Program(ready, {name: 'first'});
    await program.feed(stream({seconds: 30}));
    await program.end();
});

function source_bytes(directory) {
    const names = readdirSync(directory).filter(name => /^\w+\.\d{8}\.ts$/.test(name)).sort();
    return media_packets(Buffer.concat(names.map(name => readFileSync(join(directory, name)))));
}

// Before the publisher is started: no program writes its fragments in the order of a copy.
const copy_ready = source => cpSync(ready, source, {recursive: true});

function start(context, name, env = {}, prepare = () => {}) {
    const run = presentation(name, {options, env, prepare});
    context.after(() => run.publisher.kill());
    return run;
}

const watch_all = run => watch_until(run.checker, 'all that the source has', () => media_packets(Buffer.concat(
    run.checker.list().segments.map(({uri}) => run.checker.bytes_of(uri)))).equals(source_bytes(run.source)));

const calls = {
    open: 'EMFILE', open64: 'EMFILE', openat: 'EMFILE', write: 'ENOSPC', pwrite64: 'ENOSPC', copy_file_range: 'ENOSPC',
    renameat: 'EIO', unlinkat: 'EIO', linkat: 'EXDEV', close: 'EIO', pread: 'EIO', pread64: 'EIO', fdatasync: 'EIO',
    fcntl64: 'EIO', stat: 'EIO', fstat: 'EIO', fstatat: 'EIO', inotify_init1: 'EMFILE', inotify_add_watch: 'ENOSPC',
};
// Each of these leaves something undone that an operator has to know of.
const told = ['write', 'pwrite64', 'copy_file_range', 'renameat', 'pread', 'pread64'];

// Whether the fault struck at all: the calls may be fewer.
async function run_with_fault(context, {call, error, first, count}) {
    const name = `${call}, from ${first} on, ${count} times`;
    const run = start(context, 'call', {LD_PRELOAD: preload, VORN_FAULT: `${call}:${first}:${count}:${numbers[error]}`},
        copy_ready);
    // One that fails at the start ends it; whoever supervises it starts it again.
    run.publisher.exited.then(status => {
        if (status === 1) {
            run.publisher.env = {};
            run.publisher.start();
        }
    });
    await watch_all(run).catch(problem => assert.fail(`${name}: ${problem.message}\n${run.publisher.errors}`));
    assert.deepEqual(run.checker.finish(), [], name);
    await run.publisher.kill();
    const lines = run.publisher.errors.split('\n').filter(line => line !== '' && !line.startsWith('listening on port'));
    const struck = lines.includes(`call ${first} of ${call} fails`);
    assert.ok(!struck || !told.includes(call) || lines.length > 1, `${name}: ${run.publisher.errors}`);
    return struck;
}

// Most of a run's time is the second until the publisher tries again.
async function side_by_side(jobs) {
    const work = async () => {
        for (let job = jobs.shift(); job; job = jobs.shift())
            await job();
    };
    await Promise.all([work(), work(), work(), work()]);
}

// With VORN_EVERY_CALL in the environment, each call in turn, until there is none left of its kind.
test('a call that fails delays what it was for, and no more', async context => {
    let failed = 0;
    const fail = async fault => {
        const struck = await run_with_fault(context, {count: 1, ...fault});
        failed += struck ? 1 : 0;
        return struck;
    };
    const kinds = Object.entries(calls).map(([call, error]) => ({call, error}));
    if (process.env.VORN_EVERY_CALL) {
        await side_by_side(kinds.map(kind => async () => {
            let first = 1;
            while (await fail({...kind, first}))
                first++;
            context.diagnostic(`${kind.call}: ${first - 1}`);
        }));
    } else {
        const faults = kinds.flatMap(kind => [{...kind, first: 1}, {...kind, first: 5}]);
        // For longer than one try.
        faults.push({call: 'write', error: 'ENOSPC', first: 6, count: 3}, {call: 'pwrite64', error: 'EROFS', first: 40, count: 3});
        await side_by_side(faults.map(fault => () => fail(fault)));
    }
    context.diagnostic(`${failed} calls failed`);
    assert.ok(failed > 25, `${failed} calls failed`);
});

test('a disk that is full for a while is told, and nothing is lost', async context => {
    const run = start(context, 'full', {LD_PRELOAD: preload, VORN_FAULT: `write:2:3:${numbers.ENOSPC}`});
    const program = new Program(run.source);
    await program.feed(stream({seconds: 30}));
    await program.end();
    await watch_all(run);
    assert.match(run.publisher.errors, /No space left on device\n/);
    await wait_for('the good news', () => run.publisher.errors.includes('publishing again\n'));
    assert.deepEqual(run.checker.finish(), []);
});

test('an output directory that is removed is made anew, and the numbers go on', async context => {
    const run = start(context, 'removed');
    const program = new Program(run.source);
    const bytes = stream();
    await program.feed(bytes.subarray(0, 188 * 30000));
    await watch_until(run.checker, 'segments', () => listed_seconds(run.checker) > 8);
    const {sequence, segments} = run.checker.list();
    renameSync(run.output, `${run.output}.gone`);
    await program.feed(bytes.subarray(188 * 30000));
    await program.end();
    const next = await wait_for('a new list', () => {
        try {
            return /MEDIA-SEQUENCE:(\d+)/.exec(readFileSync(join(run.output, 'main.m3u8'), 'utf8'))?.[1];
        } catch {
            return null;
        }
    });
    assert.ok(Number(next) >= sequence + segments.length, next);
    assert.match(run.publisher.errors, /was removed; the presentation goes on in a new one with segment \d+\n/);
    assert.ok(readdirSync(run.output).includes('index.m3u8'));
    await run.publisher.kill();
    run.publisher.start();
    await wait_for('a start', () => run.publisher.errors.match(/listening/g)?.length === 2);
});

// The tables tell of none of these.
function on_other_pids(bytes) {
    for (const packet of packets_of(bytes)) {
        if (packet[1] & 0x1f || packet[2] & 0xf0)
            packet[1] ^= 0x08;
    }
    return bytes;
}

test('nonsense in the source is passed over, and ten thousand other files do not matter', async context => {
    const run = start(context, 'nonsense', {}, source => {
        for (let n = 0; n < 10000; n++)
            writeFileSync(join(source, `other.${n}`), '');
        mkdirSync(join(source, 'first.00000003.ts.eng.vtt'));
        copy_ready(source);
        const whole = readFileSync(join(source, 'first.00000005.ts'));
        writeFileSync(join(source, 'first.00000005.ts'), Buffer.alloc(whole.length, 'garbage'));
        writeFileSync(join(source, 'first.00000008.ts'), '');
        const cut = readFileSync(join(source, 'first.00000011.ts'));
        writeFileSync(join(source, 'first.00000011.ts'), cut.subarray(0, cut.length / 2));
        writeFileSync(join(source, 'first.00000014.ts'), on_other_pids(readFileSync(join(source, 'first.00000014.ts'))));
    });
    await watch_until(run.checker, 'the rest', () => listed_seconds(run.checker) > 21);
    assert.deepEqual(run.checker.finish(), []);
    assert.equal(run.checker.list().segments.filter(({discontinuity}) => discontinuity).length, 4);
    assert.match(run.publisher.errors, /first.00000005.ts holds nothing that can be published\n/);
    assert.match(run.publisher.errors, /first.00000014.ts holds nothing that can be published\n/);
});

test('a source directory that is removed and made again is followed again', async context => {
    const run = start(context, 'source', {}, copy_ready);
    await watch_all(run);
    rmSync(run.source, {recursive: true});
    const program = new Program(run.source, {name: 'second'});
    await program.feed(stream({seconds: 30, offset: 100}));
    await program.end();
    await watch_until(run.checker, 'the second run', () => listed_seconds(run.checker) > 45);
    assert.deepEqual(run.checker.finish(), []);
});

test('the clock of the machine is set back by an hour: dates do not fall, and it goes on', async context => {
    const clock_is_back = join(scratch_directory('clock'), 'back');
    const run = start(context, 'clock', {LD_PRELOAD: preload, VORN_CLOCK_BACK: clock_is_back});
    let seconds = 0;
    for (const [name, before] of [['first', () => {}], ['second', () => writeFileSync(clock_is_back, '')],
        ['third', async () => {
            await run.publisher.kill();
            run.publisher.start();
        }]]) {
        await before();
        const program = new Program(run.source, {name});
        await program.feed(stream({seconds: 30, offset: 10}));
        await program.end();
        seconds += 20;
        await watch_until(run.checker, `the ${name} run`, () => listed_seconds(run.checker) > seconds);
    }
    assert.deepEqual(run.checker.finish(), []);
    assert.equal(run.checker.list().segments.filter(({discontinuity}) => discontinuity).length, 2);
    assert.equal(run.publisher.errors.replace(/listening on port \d+\n/g, ''), '');
});
