// Programs and publishers as a test starts and kills them, on streams that ffmpeg makes once per file
// of tests. Waits are for conditions; a stream is fed as fast as it is read.

import {execFileSync, spawn} from 'node:child_process';
import {existsSync, mkdirSync, mkdtempSync, readFileSync, readdirSync, rmSync, writeFileSync} from 'node:fs';
import {tmpdir} from 'node:os';
import {join} from 'node:path';
import {setTimeout as sleep} from 'node:timers/promises';
import {Checker, read_media} from './checker.mjs';

const binaries = join(process.env.VORN_BUILD, 'bin');
const wait_limit_ms = 120000;

export async function wait_for(what, condition) {
    const end = Date.now() + wait_limit_ms;
    for (;;) {
        const value = await condition();
        if (value)
            return value;
        if (Date.now() > end)
            throw new Error(`waited in vain: ${what}`);
        await sleep(5);
    }
}

const scratch = mkdtempSync(join(tmpdir(), 'vorn-publisher.'));
process.once('exit', () => {
    if (!process.env.VORN_KEEP)
        rmSync(scratch, {recursive: true, force: true});
});

export function scratch_directory(name) {
    const directory = mkdtempSync(join(scratch, `${name}.`));
    return directory;
}

// --- streams ---------------------------------------------------------------------------------------

const made = new Map();
const pictures = (size = '320x180') => ['-f', 'lavfi', '-i', `testsrc2=size=${size}:rate=25`];
const tone = hertz => ['-f', 'lavfi', '-i', `sine=frequency=${hertz}:sample_rate=48000`];
// 26 pictures are 1.04 s: with --frag-duration 1 each group of pictures is a fragment.
const h264 = ['-c:v', 'libx264', '-preset', 'ultrafast', '-tune', 'zerolatency', '-pix_fmt', 'yuv420p',
    '-g', '26', '-keyint_min', '26', '-sc_threshold', '0', '-b:v', '500k'];
const aac = ['-c:a', 'aac', '-b:a', '64k'];
// The program reads 2 MiB before it begins.
const mux = offset => ['-muxrate', '2000000', '-output_ts_offset', offset, '-f', 'mpegts'];

// The bytes of a stream. `offset` is where its clock begins, in seconds, less the muxer's 1.4 s.
export function stream({kind = 'h264', seconds = 40, offset = 10, size = '320x180'} = {}) {
    const key = JSON.stringify([kind, seconds, offset, size]);
    if (!made.has(key)) {
        const inputs = {
            h264: [...pictures(size), ...tone(440), ...tone(1000), '-map', 0, '-map', 1, '-map', 2,
                '-metadata:s:a:0', 'language=eng', '-metadata:s:a:1', 'language=spa', ...h264, ...aac],
            long_gop: [...pictures(size), ...tone(440), ...h264, '-g', 500, '-keyint_min', 500, ...aac],
            mpeg2: [...pictures(size), ...tone(440), '-c:v', 'mpeg2video', '-g', 26, '-bf', 0,
                '-sc_threshold', 1000000000, '-b:v', '500k', '-c:a', 'mp2', '-b:a', '64k'],
            audio: [...tone(440), ...aac],
        }[kind];
        const file = join(scratch, `${made.size}.ts`);
        execFileSync('ffmpeg', ['-nostdin', '-v', 'error', ...inputs, '-t', seconds, ...mux(offset), file].map(String));
        made.set(key, readFileSync(file));
    }
    return made.get(key);
}

// --- processes -------------------------------------------------------------------------------------

function exited(child) {
    return new Promise(resolve => child.once('close', (status, signal) => resolve(signal ?? status)));
}

export class Program {
    constructor(directory, {name = 'run', options = ['--start-pat-pmt'], command = []} = {}) {
        mkdirSync(directory, {recursive: true});
        this.directory = directory;
        const all = [...command, join(binaries, 'vorn_mpegts_to_hls'), '--frag-duration', '1', '--frag-backlog', '1000',
            '--frag-name', name, ...options];
        this.child = spawn(all[0], all.slice(1).map(String), {cwd: directory, stdio: ['pipe', 'ignore', 'pipe']});
        this.errors = '';
        this.child.stderr.on('data', text => this.errors += text);
        this.child.stdin.on('error', () => {}); // shows as an exit
        this.exited = exited(this.child);
    }

    // Hands over the bytes, and waits until they are in the pipe.
    feed(bytes) {
        return new Promise(resolve => this.child.stdin.write(bytes, () => resolve()));
    }

    end() {
        this.child.stdin.end();
        return this.exited;
    }

    kill() {
        this.child.kill('SIGKILL');
        return this.exited;
    }

    fragments() {
        return readdirSync(this.directory).filter(name => /\.\d{8}\.ts$/.test(name)).sort();
    }
}

export const feeder = join(binaries, 'vorn_caption_feed');

export class Publisher {
    // With `config`, its path, that is all it is given.
    constructor(source, output, options = [], {env = {}, config} = {}) {
        Object.assign(this, {sources: [source].flat(), output, options, env, config, errors: ''});
        this.start();
    }

    start() {
        const from = this.sources.flatMap(source => ['--from', source]);
        const args = this.config ? ['--config', this.config] : [...from, '--to', this.output, ...this.options].map(String);
        this.child = spawn(join(binaries, 'vorn_hls_publish'), args,
            {stdio: ['ignore', 'ignore', 'pipe'], env: {...process.env, ...this.env}});
        this.child.stderr.on('data', text => this.errors += text);
        this.exited = exited(this.child);
    }

    kill(signal = 'SIGKILL') {
        this.child.kill(signal);
        return this.exited;
    }

    get gone() {
        return this.child.exitCode !== null || this.child.signalCode !== null;
    }

    async ask(path) {
        const port = await wait_for('the port', () => /listening on port (\d+)/.exec(this.errors)?.[1]);
        const response = await fetch(`http://127.0.0.1:${port}${path}`);
        return {status: response.status, text: await response.text()};
    }
}

export class Recorder {
    // `list` is its first one.
    constructor(context, from, to, options = [], list = 'main') {
        Object.assign(this, {to, list, errors: ''});
        context.after(() => this.kill('SIGKILL'));
        this.child = spawn(join(binaries, 'vorn_hls_record'),
            ['--from', from, '--to', to, ...options], {stdio: ['ignore', 'ignore', 'pipe']});
        this.child.stderr.on('data', text => this.errors += text);
        this.exited = new Promise(resolve => this.child.once('close', (status, signal) => resolve(signal ?? status)));
    }

    async kill(signal) {
        this.child.kill(signal);
        return this.exited;
    }

    // What it has taken so far.
    taken() {
        const journal = join(this.to, `.recording.${this.list}.m3u8`);
        return existsSync(journal) ? read_media(readFileSync(journal, 'utf8')).segments : [];
    }
}

// Looks at the published directory until the condition holds.
export async function watch_until(checker, what, condition) {
    try {
        await wait_for(what, () => {
            checker.look();
            return checker.media_texts.size > 0 && condition(checker);
        });
    } catch (error) {
        throw new Error([error.message, checker.publisher?.errors, ...checker.media_texts.values()].join('\n'));
    }
}

export const listed_seconds = checker => checker.list().duration;

// A small generator of its own, so that a run can be made again.
export function dice(seed) {
    return () => (seed = (seed * 1103515245 + 12345) % 2147483648) / 2147483648;
}

// One source, or several, and what is published of it. The publisher follows what `from` makes of
// their directories.
export function presentation(name, {options = [], checker = {}, env = {}, prepare = () => {}, sources: count = 1,
    from = sources => sources} = {}) {
    const directory = scratch_directory(name);
    const sources = Array.from({length: count}, (_, i) => join(directory, i === 0 ? 'source' : `source${i}`));
    const output = join(directory, 'output');
    for (const source of sources)
        mkdirSync(source);
    prepare(sources[0]);
    const run = {
        directory, source: sources[0], sources, output,
        publisher: new Publisher(from(sources), output, options, {env}),
        checker: new Checker(output, checker),
    };
    run.checker.publisher = run.publisher;
    return run;
}

// Rungs of one programme, each with a source, and what is published of them.
export function ladder(names, {settings = '', rendition = '', checker = {}} = {}) {
    const directory = scratch_directory('ladder');
    const output = join(directory, 'output');
    const config = join(directory, 'ladder.toml');
    const sources = names.map(name => join(directory, name));
    sources.forEach(source => mkdirSync(source));
    writeFileSync(config, `output = "${output}"\n${settings}[http]\nlisten = "127.0.0.1:0"\n` +
        names.map((name, i) => `[[rendition]]\nname = "${name}"\nsources = ["${sources[i]}"]\n${rendition}`).join(''));
    const run = {directory, sources, output, publisher: new Publisher(sources, output, [], {config}),
        checker: new Checker(output, checker)};
    run.checker.publisher = run.publisher;
    return run;
}
