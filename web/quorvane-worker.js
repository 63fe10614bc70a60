// The engine in a web worker: the page posts UCI command lines as strings, the worker posts
// back every line of the engine's text as {line}, and {ready, threads} once the engine has
// started (threads: the most search threads the page may ask for). Commands that arrive
// while the engine starts wait their turn.
'use strict';
importScripts('quorvane-web.js');

let engine = null;
const waiting = [];
let partial = '';

function emit(text) {
    const lines = (partial + text).split('\n');
    partial = lines.pop();
    for (const line of lines)
        postMessage({ line });
}

const encoder = new TextEncoder();
function command(line) {
    const bytes = encoder.encode(line);
    const ptr = engine._malloc(bytes.length + 1);
    new Uint8Array(engine.wasmMemory.buffer).set(bytes, ptr);
    const more = engine._quorvane_command(ptr, bytes.length);
    engine._free(ptr);
    if (!more) {
        engine._quorvane_finish();
        postMessage({ quit: true });
        close();
    }
}

onmessage = (event) => {
    if (engine)
        command(String(event.data));
    else
        waiting.push(String(event.data));
};

const threads = Math.max(1, Math.min(navigator.hardwareConcurrency || 1, 16));
createQuorvane({
    // One worker per search thread and one for each helper that clears the table.
    threadPool: 2 * threads,
    // The script each thread's worker loads (a worker has no script element to find it by).
    mainScriptUrlOrBlob: new URL('quorvane-web.js', self.location.href).href,
    onText: emit,
}).then((module) => {
    engine = module;
    engine._quorvane_start(1);
    postMessage({ ready: true, threads });
    while (engine && waiting.length)
        command(waiting.shift());
}, (error) => postMessage({ error: String(error) }));
