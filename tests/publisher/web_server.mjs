// A web server of another machine, as it looks from here: a directory over HTTPS, with a certificate
// that only its own authority vouches for, for those who know the password.

import {execFileSync} from 'node:child_process';
import {once} from 'node:events';
import {readFileSync, statSync, writeFileSync} from 'node:fs';
import {createServer} from 'node:https';
import {join} from 'node:path';

const login = 'publisher';
const password = 'a word';
const wanted = `Basic ${Buffer.from(`${login}:${password}`).toString('base64')}`;

export class WebServer {
    folders = {};       // that are served, by their names
    counts = {};        // of answers, by status
    given = new Map();  // how often each file was sent

    // `directory` keeps its keys.
    constructor(directory) {
        this.ca_file = join(directory, 'ca.pem');
        this.netrc = join(directory, 'netrc');
        const key = join(directory, 'key.pem');
        const curve = ['-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:prime256v1', '-nodes', '-days', '2'];
        execFileSync('openssl', ['req', '-x509', ...curve, '-keyout', key, '-out', this.ca_file,
            '-subj', '/CN=test', '-addext', 'subjectAltName=IP:127.0.0.1'], {stdio: 'ignore'});
        writeFileSync(this.netrc, `machine 127.0.0.1 login ${login} password "${password}"\n`);
        this.server = createServer({key: readFileSync(key), cert: readFileSync(this.ca_file)},
            (request, response) => this.answer(request, response));
    }

    async listen() {
        this.server.listen(0, '127.0.0.1');
        await once(this.server, 'listening');
        this.address = `https://127.0.0.1:${this.server.address().port}`;
    }

    close() {
        this.server.close();
        this.server.closeAllConnections();
    }

    answer(request, response) {
        const status = this.answer_with(request, response);
        this.counts[status] = (this.counts[status] ?? 0) + 1;
    }

    answer_with(request, response) {
        const end = (status, headers = {}, body = '') => {
            response.writeHead(status, {'Content-Length': body.length, ...headers}).end(body);
            return status;
        };
        if (request.headers.authorization !== wanted)
            return end(401);
        const [, folder, name] = request.url.split('/');
        try {
            const file = join(this.folders[folder], decodeURIComponent(name));
            const {mtimeMs, size} = statSync(file);
            const etag = `"${Math.floor(mtimeMs / 1000).toString(16)}-${size.toString(16)}"`; // as nginx has it
            if (request.headers['if-none-match'] === etag)
                return end(304, {ETag: etag});
            this.given.set(name, (this.given.get(name) ?? 0) + 1);
            return end(200, {ETag: etag}, readFileSync(file));
        } catch {
            return end(404);
        }
    }
}
