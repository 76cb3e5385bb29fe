// A web server for one test: a page for the player, and the directory of a presentation.

import {readFileSync} from 'node:fs';
import {createServer} from 'node:http';
import {join} from 'node:path';
import {setTimeout as sleep} from 'node:timers/promises';
import {picture} from './live_run.mjs';

// The page has the player's script, and a video element.
function pages_of(script) {
    return {
        '/': {type: 'text/html', body: '<!doctype html><meta charset="utf-8"><script src="player.js"></script>' +
            `<video muted width="${picture.width}" height="${picture.height}"></video>`},
        '/player.js': {type: 'text/javascript', body: readFileSync(script)},
    };
}

async function send_slowly(response, body, server) {
    const step_ms = 50;
    for (let at = 0; at < body.length && !response.destroyed;) {
        const end = at + Math.ceil(Math.min(server.bytes_per_second, 1e9) * step_ms / 1000);
        response.write(body.subarray(at, end));
        at = end;
        if (at < body.length)
            await sleep(step_ms);
    }
    response.end();
}

// Serves with byte ranges, and notes which were asked for. Each answer comes as fast as
// `bytes_per_second`, which may be changed, allows.
export async function serve(directory, script, context) {
    const served = {ranges: [], bytes_per_second: Infinity};
    const pages = pages_of(script);
    const server = createServer((request, response) => {
        const page = pages[request.url];
        if (page) {
            response.writeHead(200, {'content-type': page.type}).end(page.body);
            return;
        }
        let body;
        try {
            body = readFileSync(join(directory, request.url.slice(1)));
        } catch {
            response.writeHead(404).end();
            return;
        }
        const type = request.url.endsWith('.m3u8') ? 'application/vnd.apple.mpegurl' : 'video/mp2t';
        const headers = {'content-type': type, 'cache-control': 'no-store'};
        const range = /^bytes=(\d+)-(\d+)$/.exec(request.headers.range ?? '');
        if (range) {
            served.ranges.push(`${request.url.slice(1)} ${range[1]}-${range[2]}`);
            response.writeHead(206, {...headers, 'content-range': `bytes ${range[1]}-${range[2]}/${body.length}`});
            body = body.subarray(Number(range[1]), Number(range[2]) + 1);
        } else {
            response.writeHead(200, {...headers, 'content-length': body.length});
        }
        send_slowly(response, body, served);
    });
    await new Promise(resolve => server.listen(0, '127.0.0.1', resolve));
    context.after(() => {
        server.closeAllConnections();
        server.close();
    });
    served.address = `http://127.0.0.1:${server.address().port}`;
    return served;
}
