// The engine in a web worker: the page posts UCI command lines as strings, the worker posts
// back every line of the engine's text as {line}, and {ready, threads, threaded} once the
// engine has started (threads: the most search threads the page may ask for). Commands that
// arrive while the engine starts wait their turn.
//
// A cross-origin-isolated page gets the threaded engine. Elsewhere there is no shared memory
// and the single-threaded one runs: a search then holds the worker until it ends, so "stop"
// cannot end an infinite one.
'use strict';
const threaded = self.crossOriginIsolated === true;
const script = threaded ? 'quorvane-web.js' : 'quorvane-web-st.js';
importScripts(script);

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
    // The threaded module's views can be stale after its memory grew: a fresh one.
    const heap = engine.wasmMemory ? new Uint8Array(engine.wasmMemory.buffer) : engine.HEAPU8;
    heap.set(bytes, ptr);
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

const threads = threaded ? Math.max(1, Math.min(navigator.hardwareConcurrency || 1, 16)) : 1;
createQuorvane({
    // One worker per search thread and one for each helper that clears the table.
    threadPool: 2 * threads,
    // The script each thread's worker loads (a worker has no script element to find it by).
    mainScriptUrlOrBlob: new URL(script, self.location.href).href,
    onText: emit,
}).then((module) => {
    engine = module;
    engine._quorvane_start(1);
    postMessage({ ready: true, threads, threaded });
    while (engine && waiting.length)
        command(waiting.shift());
}, (error) => postMessage({ error: String(error) }));
