// What the publisher tells of itself: Prometheus' own tool takes it, a Prometheus scrapes it and judges
// it by the example alerts, and /healthz says whether anything is published.

import assert from 'node:assert/strict';
import {spawn, spawnSync} from 'node:child_process';
import {writeFileSync} from 'node:fs';
import {dirname, join, resolve} from 'node:path';
import {test} from 'node:test';
import {fileURLToPath} from 'node:url';
import {free_port} from '../players/live_run.mjs';
import {Program, listed_seconds, presentation, scratch_directory, stream, wait_for, watch_until} from './runs.mjs';

const {PROMETHEUS, PROMTOOL} = process.env;
const rules = resolve(dirname(fileURLToPath(import.meta.url)), '../../packaging/prometheus/vorn_hls_publish_rules.yml');
// A target duration of 1 s: the silence of a source shows soon.
const options = ['--window', 600, '--segment', 1, '--listen', '127.0.0.1:0'];

const value_of = (text, name) => Number(new RegExp(`^vorn_hls_publish_${name}\\{rendition="main"\\} (.*)$`, 'm').exec(text)?.[1]);

// A GOP in which a packet of the picture is missing, and one with a packet that is marked as damaged.
function damaged(bytes) {
    const packets = [];
    for (let at = 0; at < bytes.length; at += 188)
        packets.push(bytes.subarray(at, at + 188));
    const of_video = packets.map((packet, at) => at)
        .filter(at => (packets[at][1] & 0x5F) === 1 && packets[at][2] === 0); // PID 256, no start of a PES packet
    packets[of_video[Math.floor(of_video.length / 3)]][1] |= 0x80;
    packets.splice(of_video[Math.floor(of_video.length * 2 / 3)], 1);
    return Buffer.concat(packets);
}

test('metrics pass their check, are scraped, and health is that of the presentation', async context => {
    const run = presentation('metrics', {options});
    context.after(() => run.publisher.kill());
    const health = await run.publisher.ask('/healthz');
    assert.equal(health.status, 503);
    assert.match(health.text, /there is no segment yet/);

    const program = new Program(run.source);
    context.after(() => program.kill());
    await program.feed(damaged(stream({seconds: 30})));
    await watch_until(run.checker, 'segments', () => listed_seconds(run.checker) > 18);
    assert.deepEqual(await run.publisher.ask('/healthz'), {status: 200, text: 'ok\n'});

    const directory = scratch_directory('prometheus');
    const port = await free_port();
    const target = /listening on port (\d+)/.exec(run.publisher.errors)[1];
    writeFileSync(join(directory, 'prometheus.yml'), JSON.stringify({
        global: {scrape_interval: '1s', evaluation_interval: '1s'},
        rule_files: [rules],
        scrape_configs: [{job_name: 'vorn_hls_publish', static_configs: [{targets: [`127.0.0.1:${target}`]}]}],
    }));
    const prometheus = spawn(PROMETHEUS, [`--config.file=${directory}/prometheus.yml`, `--storage.tsdb.path=${directory}/data`,
        `--web.listen-address=127.0.0.1:${port}`], {stdio: ['ignore', 'ignore', 'pipe']});
    context.after(() => prometheus.kill('SIGKILL'));
    let said = '';
    prometheus.stderr.on('data', part => said += part);
    const ask = async path => {
        assert.equal(prometheus.exitCode, null, said);
        try {
            return (await (await fetch(`http://127.0.0.1:${port}/api/v1/${path}`)).json()).data;
        } catch {
            return null; // it is starting
        }
    };
    const query = async expression => (await ask(`query?query=${encodeURIComponent(expression)}`))?.result[0]?.value[1];
    await wait_for('a scrape behind the damage', async () => await query('vorn_hls_publish_damaged_gops_total') === '2');
    assert.equal(await query('up{job="vorn_hls_publish"}'), '1');
    assert.ok(Number(await query('histogram_quantile(0.99, vorn_hls_publish_delay_seconds_bucket)')) > 0);

    // The source is silent now, so that everything stands still.
    const silent = await wait_for('the 503', async () => {
        const answer = await run.publisher.ask('/healthz');
        return answer.status === 503 && answer;
    });
    assert.match(silent.text, /no new segment for \d+ s; nothing new comes from .*source\n$/);

    const {text} = await run.publisher.ask('/metrics');
    const check = spawnSync(PROMTOOL, ['check', 'metrics'], {input: text, encoding: 'utf8'});
    assert.deepEqual([check.status, check.stdout + check.stderr], [0, '']);
    run.checker.look();
    const {segments, duration} = run.checker.list();
    assert.equal(value_of(text, 'segments_total'), segments.length);
    assert.equal(value_of(text, 'segment_bytes_total'),
        segments.reduce((sum, {uri}) => sum + run.checker.bytes_of(uri).length, 0));
    assert.ok(Math.abs(value_of(text, 'segment_seconds_total') - duration) < 0.01);
    assert.equal(value_of(text, 'damaged_gops_total'), 2);
    assert.equal(value_of(text, 'continuity_errors_total'), 2); // nothing of the other counts
    assert.equal(value_of(text, 'transport_errors_total'), 1);
    assert.equal(value_of(text, 'source_runs_total'), 1);
    assert.equal(value_of(text, 'discontinuities_total'), 0);
    assert.equal(value_of(text, 'delay_seconds_count'), segments.length);
    assert.ok(value_of(text, 'gop_seconds_count') >= segments.length);
    assert.ok(value_of(text, 'newest_segment_age_seconds') > 3);
    assert.equal(value_of(text, 'target_duration_seconds'), 1);
    assert.ok(value_of(text, 'free_bytes') > 0 && value_of(text, 'free_bytes') < value_of(text, 'disk_bytes'));

    assert.equal(await wait_for('the alert', () => query('ALERTS{alertname="VornHlsNewestSegmentTooOld"}')), '1');
    const {groups} = await ask('rules');
    assert.deepEqual(groups.flatMap(group => group.rules).filter(({health}) => health === 'err'), []);
});
