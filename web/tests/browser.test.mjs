// The page in Debian's Chromium (headless), driven by puppeteer-core, served from dist/web
// with cross-origin isolation on 127.0.0.1. It plays moves through the board's own pointer
// events and checks every engine answer against chess.js; it runs analysis, opens a
// ?fen=&movetime= link, checks that a bad FEN is refused and that a dead worker is replaced;
// served without isolation, the page runs the single-threaded engine.
//
//   node --test web/tests/      (after make wasm; CHROMIUM, DIST and SCREENSHOT override
//                                the browser, the folder served and the screenshot's path)
import assert from 'node:assert/strict';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { dirname, join } from 'node:path';
import { after, before, test } from 'node:test';
import { fileURLToPath } from 'node:url';

import { Chess } from 'chess.js';
import puppeteer from 'puppeteer-core';

import { serve } from '../serve.mjs';

const here = dirname(fileURLToPath(import.meta.url));
const dist = process.env.DIST || join(here, '..', '..', 'dist', 'web');
const screenshot = process.env.SCREENSHOT || join(tmpdir(), 'quorvane-page.png');
const SIGNATURE = readFileSync(join(here, '..', '..', 'tools', 'bench_signature.txt'), 'utf8').trim();
const ITALIAN = 'r1bqkbnr/pppp1ppp/2n5/4p3/4P3/5N2/PPPP1PPP/RNBQKB1R w KQkq - 2 3';

let server, plainServer, browser, profile, base, plainBase;

before(async () => {
    server = await serve(dist);
    base = `http://127.0.0.1:${server.address().port}/`;
    plainServer = await serve(dist, 0, { isolated: false });
    plainBase = `http://127.0.0.1:${plainServer.address().port}/`;
    profile = mkdtempSync(join(tmpdir(), 'quorvane-chromium-'));
    browser = await puppeteer.launch({
        executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
        headless: true,
        userDataDir: profile,
        args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
               '--disable-background-networking', '--disable-component-update', '--disable-sync'],
    });
});

after(async () => {
    await browser?.close();
    server?.close();
    plainServer?.close();
    if (profile)
        rmSync(profile, { recursive: true, force: true });
});

// A page at `query`, with its errors collected; resolves once the engine said readyok.
async function openPage(query = '', origin = base) {
    const page = await browser.newPage();
    page.errors = [];
    page.on('pageerror', (error) => page.errors.push(error.message));
    await page.setViewport({ width: 1100, height: 800 });
    await page.goto(origin + query);
    await page.waitForSelector('body[data-engine=ready]', { timeout: 30000 });
    return page;
}

const text = (page, selector) => page.$eval(selector, (el) => el.textContent);

// Clicks a square of the board, then another: the board's own move input. The board redraws
// its squares when it turns (a new game as Black), so each is looked up when it is shown.
async function clickMove(page, from, to) {
    for (const square of [from, to]) {
        let box = null;
        for (let tries = 0; !box && tries < 50; tries++) {
            const rect = await page.waitForSelector(`rect[data-square="${square}"]`,
                                                    { visible: true, timeout: 10000 });
            box = await rect.boundingBox();
            if (!box)
                await new Promise((done) => setTimeout(done, 100));
        }
        assert.ok(box, `square ${square} not on the page`);
        await page.mouse.click(box.x + box.width / 2, box.y + box.height / 2);
    }
}

// The pieces on the board as "square:piece" words, sorted.
const boardPieces = (page) => page.$$eval('g[data-square][data-piece]', (groups) =>
    groups.map((g) => g.dataset.square + ':' + g.dataset.piece).sort().join(' '));

// The same listing from a FEN, for waiting until the board shows a position.
const piecesOfFen = (fen) => new Chess(fen).board().flat().filter(Boolean)
    .map((p) => p.square + ':' + p.color + p.type).sort().join(' ');

// The page's worker, started by a page script: the lines that came before "readyok" after
// `commands` (the engine's start-up banner left out).
function askWorker(page, commands) {
    return page.evaluate((commands) => new Promise((done, fail) => {
        const worker = new Worker('quorvane-worker.js');
        const seen = [];
        worker.onerror = (event) => fail(new Error(event.message));
        worker.onmessage = (event) => {
            if (event.data.ready)
                for (const line of [...commands, 'isready'])
                    worker.postMessage(line);
            else if (event.data.line === 'readyok') {
                worker.terminate();
                done(seen.slice(seen.indexOf("enter 'help' to see the commands") + 1));
            } else if (event.data.line !== undefined)
                seen.push(event.data.line);
        };
    }), commands);
}

test('the engine starts in the cross-origin-isolated page', async () => {
    const page = await openPage();
    const status = await text(page, '#engine-status');
    const ms = status.match(/in (\d+) ms: threaded build, \d+ threads?$/);
    assert.ok(ms, status);
    console.log(`# page load to readyok: ${ms[1]} ms (${status})`);
    assert.deepEqual(page.errors, []);
    await page.close();
});

test('a game through the board: every engine answer is a legal move', async () => {
    const page = await openPage();
    await page.select('#clock-choice', '180+2');
    await page.click('#new-game');
    const game = new Chess();
    for (const [from, to] of [['e2', 'e4'], ['g1', 'f3'], ['f1', 'c4'], ['b1', 'c3']]) {
        if (!game.moves({ square: from, verbose: true }).some((m) => m.to === to))
            break;  // the engine's replies made this move illegal: the game so far is enough
        game.move({ from, to });
        const before = await text(page, '#bestmove');
        await clickMove(page, from, to);
        await page.waitForFunction((b) => document.getElementById('bestmove').textContent !== b
                                   && document.getElementById('bestmove').textContent !== '',
                                   { timeout: 30000 }, before);
        const reply = (await text(page, '#bestmove')).split(' ')[1];
        assert.doesNotThrow(() => game.move({ from: reply.slice(0, 2), to: reply.slice(2, 4),
                                              promotion: reply[4] }),
                            `illegal answer ${reply} in ${game.fen()}`);
        assert.equal(await page.$eval('#fen', (el) => el.value), game.fen());
    }
    assert.match(await text(page, '#clock-bottom'), /^White \d+:\d\d$/);
    // Take-back returns to the position before the last own move.
    await page.click('#take-back');
    game.undo();
    game.undo();
    assert.equal(await page.$eval('#fen', (el) => el.value), game.fen());
    assert.deepEqual(page.errors, []);
    await page.close();
});

test('analysis shows search lines until stopped', async () => {
    const page = await openPage();
    await page.click('#analyse');
    await page.waitForFunction(() => document.getElementById('pv').textContent !== '',
                               { timeout: 30000 });
    const lines = (await text(page, '#analysis')).trim().split('\n');
    assert.match(lines[0], /^info score (cp|mate) -?\d+ depth \d+ seldepth \d+ nodes \d+ nps \d+/);
    assert.match(await text(page, '#score'), /^[+-]?\d+\.\d\d$|^#-?\d+$/);
    await page.click('#stop');
    await page.waitForFunction(() => document.getElementById('bestmove').textContent
                                   .startsWith('bestmove'), { timeout: 30000 });
    const best = (await text(page, '#bestmove')).split(' ')[1];
    assert.ok(new Chess().moves({ verbose: true }).some((m) => m.lan === best), best);
    await page.screenshot({ path: screenshot });
    console.log(`# screenshot: ${screenshot}`);
    await page.close();
});

test('a ?fen=&movetime=500 link searches that position', async () => {
    const page = await openPage('?fen=' + encodeURIComponent(ITALIAN) + '&movetime=500');
    await page.waitForFunction(() => document.getElementById('bestmove').textContent
                                   .startsWith('bestmove'), { timeout: 30000 });
    const best = (await text(page, '#bestmove')).split(' ')[1];
    assert.ok(new Chess(ITALIAN).moves({ verbose: true }).some((m) => m.lan === best), best);
    assert.notEqual(await text(page, '#analysis'), '');
    await page.close();
});

test('a bad FEN or PGN is refused with a message and the position stays', async () => {
    const page = await openPage('?fen=' + encodeURIComponent(ITALIAN));
    // The link's position is drawn after the page loads: wait for it before comparing.
    const pieces = piecesOfFen(ITALIAN);
    await page.waitForFunction((want) => [...document.querySelectorAll('g[data-square][data-piece]')]
        .map((g) => g.dataset.square + ':' + g.dataset.piece).sort().join(' ') === want,
                               { timeout: 10000 }, pieces);
    for (const [field, button, value] of [
        ['#fen', '#set-fen', 'rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP w KQkq - 0 1'],
        ['#fen', '#set-fen', '8/8/8/8/8/8/8/8 w - - 0 1'],
        ['#pgn', '#load-pgn', '1. e4 e5 2. Ke3 Nc6'],
    ]) {
        await page.$eval(field, (el, v) => { el.value = v; }, value);
        await page.click(button);
        assert.equal(await page.$eval('#message', (el) => el.hidden), false, value);
        assert.match(await text(page, '#message'), /refused/, value);
        assert.equal(await boardPieces(page), pieces, value);
    }
    assert.deepEqual(page.errors, []);
    await page.close();
});

test('a worker that dies is reported and a new engine analyses', async () => {
    const page = await openPage();
    const worker = page.workers().find((w) => w.url().endsWith('/quorvane-worker.js'));
    assert.ok(worker, page.workers().map((w) => w.url()).join(' '));
    await worker.evaluate(() => {
        setTimeout(() => {
            throw new Error('engine crash for the test');
        }, 0);
    });
    await page.waitForFunction(() => !document.getElementById('message').hidden,
                               { timeout: 10000 });
    assert.match(await text(page, '#message'), /engine stopped .*engine crash for the test/);
    await page.waitForSelector('body[data-engine=ready]', { timeout: 30000 });
    await page.click('#analyse');
    await page.waitForFunction(() => document.getElementById('pv').textContent !== '',
                               { timeout: 30000 });
    await page.close();
});

test('without cross-origin isolation the single-threaded engine plays and searches', async () => {
    const page = await openPage('?fen=' + encodeURIComponent(ITALIAN) + '&movetime=500', plainBase);
    assert.match(await text(page, '#engine-status'), /single-threaded build/);
    await page.waitForFunction(() => document.getElementById('bestmove').textContent
                                   .startsWith('bestmove'), { timeout: 30000 });
    const best = (await text(page, '#bestmove')).split(' ')[1];
    assert.ok(new Chess(ITALIAN).moves({ verbose: true }).some((m) => m.lan === best), best);
    // Analysis runs as a chain of short searches, and stops.
    await page.click('#analyse');
    await page.waitForFunction(() => document.getElementById('pv').textContent !== '',
                               { timeout: 30000 });
    await page.click('#stop');
    // A game: the engine answers a move.
    await page.click('#new-game');
    await clickMove(page, 'd2', 'd4');
    await page.waitForFunction(() => document.getElementById('moves').textContent.includes('d4 '),
                               { timeout: 30000 });
    const game = new Chess();
    game.move('d4');
    const reply = (await text(page, '#bestmove')).split(' ')[1];
    assert.doesNotThrow(() => game.move({ from: reply.slice(0, 2), to: reply.slice(2, 4) }), reply);
    assert.equal(await page.$eval('#fen', (el) => el.value), game.fen());
    assert.deepEqual(page.errors, []);
    await page.close();
});

// The worker's command loop on its own, as a page script talks to it: command lines in,
// every output line back, with the browser's Hash range and the pool's thread ceiling.
test('the worker answers command lines with the browser settings', async () => {
    const page = await openPage();
    const seen = await askWorker(page, ['uci', 'setoption name Hash value 4096',
        'setoption name Hash value 64', 'setoption name Threads value 64']);
    const most = Math.min(await page.evaluate(() => navigator.hardwareConcurrency), 16);
    const after = seen.slice(seen.indexOf('uciok') + 1);
    assert.ok(seen.includes('option name Hash type spin default 32 min 1 max 2048'), seen.join('\n'));
    assert.deepEqual(after, [
        'info string Hash above 2048 MB does not fit in WebAssembly memory, unchanged',
        'info string Size of Hashtable set to : 64',
        'info string Number of threads set to : 64',
        ...(64 > most ? [`info string this build runs at most ${most} threads, using ${most}`] : []),
    ]);
    await page.close();
});

test('both browser builds give the bench signature', async () => {
    for (const origin of [base, plainBase]) {
        const page = await openPage('', origin);
        const lines = await askWorker(page, ['bench']);
        assert.ok(lines.includes('Nodes searched: ' + SIGNATURE), lines.slice(-3).join('\n'));
        console.log(`# bench in Chromium, ${origin === base ? 'threaded' : 'single-threaded'} `
                    + `build: ${lines.find((l) => l.startsWith('Nodes/second'))}`);
        await page.close();
    }
});
