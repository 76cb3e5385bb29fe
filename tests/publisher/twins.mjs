// Programs that read one stream, and what is published of them beside what the encoder made.

import assert from 'node:assert/strict';
import {media_packets} from './checker.mjs';
import {Program, listed_seconds} from './runs.mjs';

export const chunk_bytes = 188 * 700;

const discontinuities = run => run.checker.list().segments.filter(({discontinuity}) => discontinuity).length;

const published = run => media_packets(Buffer.concat(run.checker.list().segments.map(({uri}) => run.checker.bytes_of(uri))));

// What is published is a stretch of the encoder's output, packet by packet, that ends behind `seconds`.
export function require_stretch_of(run, bytes, seconds) {
    const want = media_packets(bytes);
    const got = published(run);
    const begin = want.indexOf(got.subarray(0, 188 * 20));
    assert.ok(begin >= 0 && begin % 188 === 0, 'it begins with packets of the encoder');
    for (let at = 0; at < got.length; at += 188) {
        const [a, b] = [got.subarray(at, at + 188), want.subarray(begin + at, begin + at + 188)];
        assert.ok(a.equals(b), `nothing is missing, doubled or changed: packet ${at / 188} of ${got.length / 188}, ` +
            `of PID ${(a.readUInt16BE(1) & 0x1fff)} where that of PID ${(b.readUInt16BE(1) & 0x1fff)} ought to be`);
    }
    assert.ok(listed_seconds(run.checker) > seconds, `${listed_seconds(run.checker)} s are published`);
    assert.equal(discontinuities(run), 0);
    assert.deepEqual(run.checker.finish(), []);
}

// A program that can be killed and started again, and is fed the stream from then on, like one that
// joins a multicast. It never gets ahead of what has been sent.
export class Twin {
    constructor(source, letter) {
        Object.assign(this, {source, letter, runs: 0});
        this.start();
    }

    start() {
        this.program = new Program(this.source, {name: `${this.letter}${this.runs++}`});
    }

    async kill() {
        await this.program.kill();
        this.start();
    }
}

export async function send(twins, bytes, between = () => {}) {
    for (let at = 0; at < bytes.length; at += chunk_bytes) {
        const chunk = bytes.subarray(at, at + chunk_bytes);
        await Promise.all(twins.map(twin => twin.program.feed(chunk)));
        await between(at);
    }
}

// A new run has something to deliver when a fragment of its own is there.
export const is_back = twin => twin.program.fragments().some(name => name.startsWith(`${twin.letter}${twin.runs - 1}.`));
