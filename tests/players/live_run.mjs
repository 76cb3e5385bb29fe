// A live run for players: ffmpeg makes streams in real time, one program per mode cuts them, captions
// come through the feeder, nginx serves it all with the demo's page. Everything that is started here
// is ended by stop().
//
// Each picture carries its own number as 16 black or white boxes, the lowest bit at the left, so that
// its time can be read off the screen, whatever the player believes about it.

import {spawn} from 'node:child_process';
import {closeSync, mkdirSync, mkdtempSync, openSync, readFileSync, rmSync, writeFileSync} from 'node:fs';
import {createServer} from 'node:net';
import {tmpdir} from 'node:os';
import {dirname, join} from 'node:path';
import {setTimeout as sleep} from 'node:timers/promises';
import {fileURLToPath} from 'node:url';

export const project_root = join(dirname(fileURLToPath(import.meta.url)), '..', '..');

export const pictures_per_second = 25;
export const picture = {width: 320, height: 180};
export const number_bits = 16;
export const tones_hz = [440, 1000]; // of the main and of the secondary audio

// 26 pictures are 1.04 s: the first keyframe after a second, so that every fragment is one group.
const gop = 26;
const options = ['--frag-duration', '1', '--frag-backlog', '10'];
// The program reads 2 MiB before it starts and 1.5 MB ahead: 4 s and 3 s at this rate.
const bits_per_second = 4000000;
// The muxer begins 1.4 s and the audio encoder's delay later than the offset that it is told.
const ts_offset = 8.6;
export const base_time = 900000;

// A source for ffmpeg, whose first picture has the number `first`.
export function numbered_pictures(first = 0) {
    const box = picture.width / number_bits;
    const filters = [`testsrc2=size=${picture.width}x${picture.height}:rate=${pictures_per_second}`,
        `drawbox=x=0:y=0:w=${picture.width}:h=${box}:color=black:t=fill`];
    for (let bit = 0; bit < number_bits; bit++) {
        filters.push(`drawbox=x=${bit * box}:y=0:w=${box}:h=${box}:color=white:t=fill:` +
            `enable='mod(floor((n+${first})/${2 ** bit}),2)'`);
    }
    return filters.join(',');
}

const tone = frequency => ['-f', 'lavfi', '-i', `sine=frequency=${frequency}:sample_rate=48000`];
const mux = ['-muxrate', bits_per_second, '-output_ts_offset', ts_offset, '-f', 'mpegts', 'pipe:1'];
const quiet = ['-nostdin', '-hide_banner', '-v', 'error', '-re'];
const video_source = [...quiet, '-f', 'lavfi', '-i', numbered_pictures(), ...tone(tones_hz[0]), ...tone(tones_hz[1]),
    '-map', 0, '-map', 1, '-map', 2, '-metadata:s:a:0', 'language=eng', '-metadata:s:a:1', 'language=spa',
    '-b:v', '1500k', '-c:a', 'aac', '-b:a', '96k'];
const h264 = gop => ['-c:v', 'libx264', '-preset', 'ultrafast', '-tune', 'zerolatency', '-pix_fmt', 'yuv420p',
    '-g', gop, '-keyint_min', gop, '-sc_threshold', 0];

// What ffmpeg makes. More than one program can read each.
const sources = {
    h264: [...video_source, ...h264(gop), ...mux],
    h264_even: [...video_source, ...h264(2 * pictures_per_second), ...mux],
    mpeg2: [...video_source, '-c:v', 'mpeg2video', '-g', gop, '-bf', 0, '-sc_threshold', 1000000000, ...mux],
    audio: [...quiet, ...tone(tones_hz[0]), '-c:a', 'aac', '-b:a', '96k', ...mux],
};

// What is added to the options, and what there is to be seen of it.
export const modes = {
    default: {source: 'h264', options: [], multilevel: true, captions: true},
    // Fragments of 2 s where 1 s is announced.
    long_gop: {source: 'h264_even', options: [], multilevel: true, captions: true},
    no_multilevel: {source: 'h264', options: ['--no-multilevel'], multilevel: false, captions: false},
    // The captions come in the stream: as closed captions, and as teletext.
    broadcast_captions: {source: 'h264', options: [], multilevel: true, captions: true, broadcast: true},
    start_pat_pmt: {source: 'h264', options: ['--start-pat-pmt'], multilevel: true, captions: true},
    separate_streams: {source: 'h264', options: ['--separate-streams', '--sap'], multilevel: true, captions: true},
    audio_only: {source: 'audio', options: ['--no-multilevel'], multilevel: false, captions: false},
    audio_only_multilevel: {source: 'audio', options: [], multilevel: true, captions: false},
    mpeg2: {source: 'mpeg2', options: [], multilevel: true, captions: true},
};

export async function free_port() {
    const server = createServer();
    await new Promise(resolve => server.listen(0, '127.0.0.1', resolve));
    const {port} = server.address();
    await new Promise(resolve => server.close(resolve));
    return port;
}

// wait_for(WHAT, SECONDS, CONDITION): what the condition gives, once that is true.
export async function wait_for(what, seconds, condition) {
    const end = Date.now() + seconds * 1000;
    for (;;) {
        const value = await condition();
        if (value)
            return value;
        if (Date.now() > end)
            throw new Error(`waited ${seconds} s in vain: ${what}`);
        await sleep(100);
    }
}

// The environment of a player that leaves its settings and sockets in `directory`, and nowhere else.
export function at_home_in(directory) {
    return {...process.env, HOME: directory, TMPDIR: directory};
}

export class LiveRun {
    constructor(build_directory) {
        this.program = join(build_directory, 'bin', 'vorn_mpegts_to_hls');
        this.caption_feed = join(build_directory, 'bin', 'vorn_caption_feed');
        this.directory = mkdtempSync(join(tmpdir(), 'vorn-players.'));
        this.hls = join(this.directory, 'hls');
        this.children = [];
        mkdirSync(this.hls);
        // Whatever ends this process, nothing of the run stays.
        for (const signal of ['SIGINT', 'SIGTERM'])
            process.once(signal, () => process.exit(1));
        process.once('exit', () => this.abandon());
    }

    directory_of(mode) {
        return join(this.hls, mode);
    }

    url_of(mode) {
        return `${this.address}/hls/${mode}/ch1.m3u8`;
    }

    media_playlist_of(mode) {
        const suffix = !modes[mode].multilevel ? '' : mode === 'separate_streams' ? '.v.m3u8' : '.av.m3u8';
        return `ch1.m3u8${suffix}`;
    }

    log_of(name) {
        return readFileSync(join(this.directory, `${name}.log`), 'utf8');
    }

    spawn(name, command, args, {cwd = this.directory, stdin = 'ignore', stdout = 'ignore'} = {}) {
        const log = openSync(join(this.directory, `${name}.log`), 'a');
        const child = spawn(command, args.map(String), {cwd, stdio: [stdin, stdout, log]});
        closeSync(log);
        child.on('error', () => {}); // shows as an exit
        child.exited = new Promise(resolve => child.once('close', resolve));
        this.children.push(child);
        return child;
    }

    async start(names) {
        await this.start_nginx();
        const readers = new Map(Object.keys(sources).map(source => [source, []]));
        for (const name of names)
            readers.get(modes[name].source).push(this.start_program(name));
        for (const [source, programs] of readers) {
            if (programs.length > 0)
                this.start_source(source, programs);
        }
    }

    async start_nginx() {
        const port = await free_port();
        this.address = `http://127.0.0.1:${port}`;
        const words = {
            run: this.directory, hls: `${this.hls}/`, port, page: join(project_root, 'demo'),
            snippet: join(project_root, 'packaging', 'nginx', 'vorn_mpegts_to_hls.conf'),
        };
        const text = readFileSync(join(project_root, 'demo', 'nginx.conf'), 'utf8');
        const file = join(this.directory, 'nginx.conf');
        writeFileSync(file, text.replace(/@(\w+)@/g, (all, word) => words[word]));
        // nginx waits for no input that could end, so it is told to go when this process is gone.
        this.spawn('nginx', 'setpriv', ['--pdeathsig', 'KILL', '/usr/sbin/nginx', '-e', 'stderr', '-c', file]);
        await wait_for('nginx', 30, () => fetch(this.address).then(response => response.ok, () => false));
    }

    start_program(name) {
        const {options: mode_options, captions, broadcast} = modes[name];
        const spoken_time = join(project_root, 'demo', 'spoken_time');
        const command = [this.program, ...options, ...mode_options];
        if (broadcast) {
            command.unshift(this.caption_feed, '--captions', 'auto');
        } else if (captions) {
            command.unshift(this.caption_feed, '--base-time', base_time, '--pace', 'realtime', '--lead', 3,
                '--captions', `eng=|exec '${spoken_time}' 'The time is %s.'`,
                '--captions', `spa=|exec '${spoken_time}' 'Son las %s.'`, '--');
        }
        mkdirSync(this.directory_of(name));
        const adder = broadcast ? this.start_adder(name) : null;
        const child = this.spawn(name, command[0], command.slice(1),
            {cwd: this.directory_of(name), stdin: adder ? adder.stdout : 'pipe'});
        const first = adder ?? child;
        first.stdin.on('error', () => {}); // the test sees that nothing comes any more
        return first;
    }

    // Puts captions into the stream on its way to the program.
    start_adder(name) {
        const add_captions = join(project_root, 'tests', 'captions', 'add_captions.py');
        const video_pid = 0x100; // ffmpeg's first
        return this.spawn(`${name}.adder`, 'python3', ['-B', add_captions, video_pid, base_time,
            pictures_per_second, 'The time is %s.', 'Son las %s.'], {stdin: 'pipe', stdout: 'pipe'});
    }

    start_source(name, programs) {
        const child = this.spawn(`source.${name}`, 'ffmpeg', sources[name], {stdout: 'pipe'});
        this.started = Date.now();
        child.stdout.once('data', () => this.note_clock());
        child.stdout.on('data', bytes => {
            for (const program of programs)
                program.stdin.write(bytes);
        });
        child.stdout.on('end', () => programs.forEach(program => program.stdin.end()));
    }

    // For the page: when the first picture left the encoder. All sources start together.
    note_clock() {
        const clock = {time: Date.now() / 1000, pts: base_time};
        writeFileSync(join(this.directory, 'clock.json'), JSON.stringify(clock));
    }

    // Players have all they need: a rate, and every rendition in its group.
    async ready(mode, fragments = 4) {
        await wait_for(`${mode}: ${fragments} fragments`, 180, () =>
            (this.read(mode, this.media_playlist_of(mode)).match(/^#EXTINF/gm) ?? []).length >= fragments);
        if (modes[mode].captions) {
            await wait_for(`${mode}: subtitles`, 120, () => {
                const master = this.read(mode, 'ch1.m3u8');
                return (master.match(/TYPE=SUBTITLES,GROUP-ID/g) ?? []).length === 2 &&
                    !master.includes('BANDWIDTH=0,');
            });
        }
    }

    read(mode, name) {
        try {
            return readFileSync(join(this.directory_of(mode), name), 'utf8');
        } catch {
            return '';
        }
    }

    // Ends the sources; the programs end by themselves when their input does.
    async stop() {
        const sources_first = [...this.children].sort((a, b) => (a.stdout ? 0 : 1) - (b.stdout ? 0 : 1));
        for (const child of sources_first) {
            if (child.stdout || !child.stdin)
                child.kill();
            await Promise.race([child.exited, sleep(10000, null, {ref: false})]);
            child.kill('SIGKILL');
        }
        this.abandon();
    }

    abandon() {
        for (const child of this.children)
            child.kill('SIGKILL');
        if (!process.env.VORN_KEEP)
            rmSync(this.directory, {recursive: true, force: true});
    }
}
