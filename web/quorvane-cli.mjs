#!/usr/bin/env node
// The WebAssembly engine as a console program under node: UCI lines on standard input,
// the engine's text on standard output, as the native engine does. Arguments, when given,
// are joined into one command that runs before the program ends. The host's files and
// environment are the engine's (rtest, SyzygyPath, QUORVANE_HASH_LIMIT_MB). The search
// threads are limited to QUORVANE_WASM_THREADS, by default one per core.
//
//   node dist/web/quorvane-cli.mjs [command ...]
import { readFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import os from 'node:os';

const require = createRequire(import.meta.url);
const createQuorvane = require('./quorvane-node.js');
// The most search threads: QUORVANE_WASM_THREADS, or one per core.
const cores = typeof os.availableParallelism === 'function' ? os.availableParallelism() : os.cpus().length;
const threads = Math.max(1, parseInt(process.env.QUORVANE_WASM_THREADS, 10) || cores);

const engine = await createQuorvane({
    wasmBinary: readFileSync(new URL('./quorvane-node.wasm', import.meta.url)),
    // One worker per search thread and one for each helper that clears the table.
    threadPool: 2 * threads,
    onText: (text) => process.stdout.write(text),
});

for (const [name, value] of Object.entries(process.env))
    engine.ccall('quorvane_setenv', null, ['string', 'string'], [name, value]);

// Runs one command line given as bytes; false after "quit".
function command(bytes) {
    const ptr = engine._malloc(bytes.length + 1);
    new Uint8Array(engine.wasmMemory.buffer).set(bytes, ptr);
    const more = engine._quorvane_command(ptr, bytes.length);
    engine._free(ptr);
    return more !== 0;
}

function finish() {
    engine._quorvane_finish();
    process.stdout.write('', () => process.exit(0));
}

engine._quorvane_start(0);
const args = process.argv.slice(2);
if (args.length > 0) {
    command(Buffer.from(args.map((a) => a + ' ').join('')));
    finish();
} else {
    // Lines end at '\n' only, as std::getline reads them; a last line without one still
    // runs, and the end of input is "quit".
    let pending = Buffer.alloc(0);
    let open = true;
    const stop = () => {
        open = false;
        process.stdin.pause();
        finish();
    };
    process.stdin.on('data', (chunk) => {
        pending = Buffer.concat([pending, chunk]);
        for (let nl; open && (nl = pending.indexOf(10)) >= 0;) {
            const line = pending.subarray(0, nl);
            pending = pending.subarray(nl + 1);
            if (!command(line))
                stop();
        }
    });
    process.stdin.on('end', () => {
        if (!open)
            return;
        if (pending.length > 0 && !command(pending))
            return stop();
        command(Buffer.from('quit'));
        stop();
    });
}
