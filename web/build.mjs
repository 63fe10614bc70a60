// Builds the page into a folder (default ../dist/web): the script bundled with esbuild from
// src/main.js and its npm packages, index.html, style.css, the board's assets and the
// licences of the bundled packages. The engine's files are put there by tools/wasm.sh.
//
//   node web/build.mjs [out]
import { build } from 'esbuild';
import { cpSync, mkdirSync, readFileSync, writeFileSync } from 'node:fs';
import { dirname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';

const here = dirname(fileURLToPath(import.meta.url));
const out = resolve(process.argv[2] || join(here, '..', 'dist', 'web'));
const board = join(here, 'node_modules', 'cm-chessboard');

mkdirSync(out, { recursive: true });
await build({
    entryPoints: [join(here, 'src', 'main.js')],
    bundle: true,
    minify: true,
    format: 'iife',
    target: 'es2020',
    legalComments: 'eof',
    outfile: join(out, 'app.js'),
    logLevel: 'warning',
});
cpSync(join(here, 'index.html'), join(out, 'index.html'));
cpSync(join(here, 'style.css'), join(out, 'style.css'));
const assets = join(out, 'assets');
for (const file of ['chessboard.css', 'pieces/standard.svg',
    'extensions/promotion-dialog/promotion-dialog.css'])
    cpSync(join(board, 'assets', file), join(assets, file));

const licences = ['cm-chessboard', 'chess.js'].map((name) => {
    const pkg = JSON.parse(readFileSync(join(here, 'node_modules', name, 'package.json'), 'utf8'));
    const text = readFileSync(join(here, 'node_modules', name, 'LICENSE'), 'utf8');
    return `${name} ${pkg.version} (${pkg.license})\n\n${text.trim()}\n`;
});
writeFileSync(join(out, 'THIRD-PARTY-LICENSES.txt'), licences.join('\n' + '-'.repeat(72) + '\n\n'));
