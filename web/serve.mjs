// A static server for dist/web on 127.0.0.1 with the headers that make the page
// cross-origin isolated (so that the engine's threads have shared memory).
//
//   node web/serve.mjs [folder] [port]      (defaults: dist/web beside this folder, 8080)
//   ISOLATION=0 node web/serve.mjs ...      (without those headers: the single-threaded engine)
import { createServer } from 'node:http';
import { readFile } from 'node:fs/promises';
import { dirname, extname, join, normalize, resolve, sep } from 'node:path';
import { fileURLToPath } from 'node:url';

const TYPES = {
    '.html': 'text/html; charset=utf-8', '.js': 'text/javascript', '.mjs': 'text/javascript',
    '.css': 'text/css', '.svg': 'image/svg+xml', '.wasm': 'application/wasm',
    '.txt': 'text/plain; charset=utf-8', '.png': 'image/png',
};

// Serves `root` on 127.0.0.1:`port` (0: any free port); resolves to the server once it listens.
export function serve(root, port = 0, { isolated = true } = {}) {
    root = resolve(root);
    const server = createServer(async (request, response) => {
        const path = decodeURIComponent(new URL(request.url, 'http://localhost').pathname);
        const file = normalize(join(root, path.endsWith('/') ? path + 'index.html' : path));
        const headers = isolated ? {
            'Cross-Origin-Opener-Policy': 'same-origin',
            'Cross-Origin-Embedder-Policy': 'require-corp',
            'Cross-Origin-Resource-Policy': 'same-origin',
        } : {};
        headers['Cache-Control'] = 'no-store';
        if (file !== root && !file.startsWith(root + sep)) {
            response.writeHead(403, headers).end();
            return;
        }
        try {
            const body = await readFile(file);
            headers['Content-Type'] = TYPES[extname(file)] || 'application/octet-stream';
            response.writeHead(200, headers).end(body);
        } catch {
            response.writeHead(404, headers).end('not found');
        }
    });
    return new Promise((done) => server.listen(port, '127.0.0.1', () => done(server)));
}

if (process.argv[1] && resolve(process.argv[1]) === fileURLToPath(import.meta.url)) {
    const here = dirname(fileURLToPath(import.meta.url));
    const root = process.argv[2] || join(here, '..', 'dist', 'web');
    const server = await serve(root, Number(process.argv[3] || 8080),
                               { isolated: process.env.ISOLATION !== '0' });
    console.log(`serving ${resolve(root)} at http://127.0.0.1:${server.address().port}/`);
}
