// The page: a game against Quorvane on a clock, and analysis of positions and games. The
// board is cm-chessboard, the rules are chess.js; the engine runs in a web worker
// (quorvane-worker.js) and speaks UCI text with the page.
//
// Links: ?fen=<FEN> opens that position for analysis; &movetime=<ms> also searches it at
// once. The engine's last "bestmove" line stands in #bestmove, its search lines in #analysis.
import { Chessboard, COLOR, INPUT_EVENT_TYPE, FEN } from 'cm-chessboard/src/Chessboard.js';
import {
    PromotionDialog,
    PROMOTION_DIALOG_RESULT_TYPE,
} from 'cm-chessboard/src/extensions/promotion-dialog/PromotionDialog.js';
import { Chess } from 'chess.js';

const $ = (id) => document.getElementById(id);
const START_FEN = FEN.start;

// ------------------------------------------------------------------------------------------
// The engine: one worker at a time; a worker that dies is reported and replaced.

const pageStart = performance.now();
const engine = {
    worker: null,
    ready: false,
    threads: 1,
    threaded: true,
    readyMs: null,

    start() {
        this.ready = false;
        this.worker = new Worker('quorvane-worker.js');
        this.worker.onmessage = (event) => {
            const data = event.data;
            if (data.line !== undefined)
                onEngineLine(data.line);
            else if (data.ready) {
                this.threads = data.threads;
                this.threaded = data.threaded;
                this.send('uci');
                this.send('setoption name Threads value ' + this.threads);
                this.send('isready');
            } else if (data.error)
                this.failed(data.error);
        };
        this.worker.onerror = (event) => {
            event.preventDefault();
            this.failed(event.message || 'error');
        };
    },

    failed(why) {
        this.worker.terminate();
        search.current = null;
        search.discard = 0;
        showMessage('The engine stopped (' + why + '); a new one is starting.');
        setStatus('restarting the engine…');
        document.body.dataset.engine = 'restarting';
        this.start();
    },

    send(line) {
        this.worker.postMessage(line);
    },
};

function setStatus(text) {
    $('engine-status').textContent = text;
}

// Searches: the page knows which one runs; the move of one it gave up on is dropped.
const search = {
    current: null,  // {kind: 'play' | 'analyse', fen, turn}
    discard: 0,     // bestmoves still to come from searches given up on
};

function startSearch(kind, goArgs) {
    if (!engine.ready)
        return;
    cancelSearch();
    search.current = { kind, fen: game.fen(), turn: game.turn() };
    $('analysis').textContent = '';
    const moves = line.slice(0, cursor).map((m) => m.lan);
    engine.send('position fen ' + startFen + (moves.length ? ' moves ' + moves.join(' ') : ''));
    engine.send('go ' + goArgs);
}

function cancelSearch() {
    if (search.current) {
        engine.send('stop');
        search.discard++;
        search.current = null;
    }
}

function onEngineLine(text) {
    if (text === 'readyok' && !engine.ready) {
        const restarted = engine.readyMs !== null;
        engine.ready = true;
        engine.readyMs = Math.round(performance.now() - pageStart);
        setStatus('engine ready in ' + engine.readyMs + ' ms: ' + (engine.threaded
            ? 'threaded build, ' + engine.threads + (engine.threads > 1 ? ' threads' : ' thread')
            : 'single-threaded build (the page is not cross-origin isolated)'));
        document.body.dataset.engine = 'ready';
        if (!restarted)
            afterEngineReady();
        return;
    }
    if (text.startsWith('bestmove')) {
        if (search.discard > 0) {
            search.discard--;
            return;
        }
        $('bestmove').textContent = text;
        const done = search.current;
        search.current = null;
        if (done && done.kind === 'play')
            engineMoved(text.split(' ')[1], done);
        else if (done && done.kind === 'analyse' && analysing && !engine.threaded)
            analyse();  // the next second of a single-threaded analysis
        return;
    }
    if (text.startsWith('info') && search.current && search.discard === 0) {
        const out = $('analysis');
        out.textContent += text + '\n';
        showSearchLine(text, search.current);
    }
}

// "info score cp S depth D seldepth SD nodes N nps P time T tbhits H pv ..."
function showSearchLine(text, current) {
    const words = text.split(' ');
    const info = {};
    for (let i = 1; i < words.length; i++) {
        const w = words[i];
        if (w === 'score') {
            info.kind = words[++i];
            info.score = Number(words[++i]);
        } else if (w === 'pv') {
            info.pv = words.slice(i + 1);
            break;
        } else if (['depth', 'seldepth', 'nodes', 'nps', 'time'].includes(w))
            info[w] = Number(words[++i]);
    }
    if (info.kind === undefined || !info.pv)
        return;
    // The engine scores for the side to move; the page shows White's view.
    const sign = current.turn === 'w' ? 1 : -1;
    const score = sign * info.score;
    $('score').textContent = info.kind === 'mate'
        ? (score > 0 ? '#' : '#-') + Math.abs(score)
        : (score > 0 ? '+' : '') + (score / 100).toFixed(2);
    $('depth').textContent = info.depth;
    $('seldepth').textContent = info.seldepth;
    $('nps').textContent = info.nps;
    const white = info.kind === 'mate' ? (score > 0 ? 1 : 0) : 1 / (1 + Math.exp(-score / 250));
    $('eval-fill').style.height = (100 * white).toFixed(1) + '%';
    $('pv').textContent = sanLine(current.fen, info.pv);
}

// The moves of a line in standard notation, numbered from the position `fen`.
function sanLine(fen, uciMoves) {
    const board = new Chess(fen);
    let text = '';
    for (const uci of uciMoves) {
        const moveNo = board.moveNumber();
        let move;
        try {
            move = board.move({ from: uci.slice(0, 2), to: uci.slice(2, 4), promotion: uci[4] });
        } catch {
            break;
        }
        if (move.color === 'w')
            text += moveNo + '. ';
        else if (text === '')
            text += moveNo + '... ';
        text += move.san + ' ';
    }
    return text.trim();
}

// ------------------------------------------------------------------------------------------
// The game: a line of moves from startFen, of which the first `cursor` are on the board.

let startFen = START_FEN;
let line = [];
let cursor = 0;
let game = new Chess();
let mode = 'analyse';  // or 'play'
let userColour = 'w';
let over = null;       // the result text once the game has ended

const clock = {
    ms: { w: 0, b: 0 },
    inc: 0,
    running: null,  // 'w', 'b' or null
    since: 0,

    set(seconds, inc) {
        this.ms = { w: seconds * 1000, b: seconds * 1000 };
        this.inc = inc * 1000;
        this.running = null;
    },
    // Ends the running side's turn (with its increment) and starts the other's.
    press(next) {
        this.settle();
        if (this.running)
            this.ms[this.running] += this.inc;
        this.running = next;
    },
    settle() {
        const now = performance.now();
        if (this.running)
            this.ms[this.running] -= now - this.since;
        this.since = now;
    },
    stop() {
        this.settle();
        this.running = null;
    },
};

function showClocks() {
    const text = (ms) => {
        const s = Math.max(0, Math.ceil(ms / 1000));
        return Math.floor(s / 60) + ':' + String(s % 60).padStart(2, '0');
    };
    const bottom = board.getOrientation() === COLOR.white ? 'w' : 'b';
    for (const [id, side] of [['clock-bottom', bottom], ['clock-top', bottom === 'w' ? 'b' : 'w']]) {
        const el = $(id);
        el.textContent = mode === 'play'
            ? (side === 'w' ? 'White ' : 'Black ') + text(clock.ms[side]) : '';
        el.classList.toggle('running', clock.running === side);
    }
}

setInterval(() => {
    if (mode !== 'play' || !clock.running || over)
        return;
    clock.settle();
    if (clock.ms[clock.running] <= 0) {
        const loser = clock.running;
        clock.ms[loser] = 0;
        clock.stop();
        cancelSearch();
        endGame((loser === 'w' ? '0-1' : '1-0') + ', ' + (loser === 'w' ? 'White' : 'Black')
                + ' lost on time');
    }
    showClocks();
}, 100);

function rebuild() {
    game = new Chess(startFen);
    for (const m of line.slice(0, cursor))
        game.move({ from: m.from, to: m.to, promotion: m.promotion });
    board.setPosition(game.fen(), true);
    $('fen').value = game.fen();
    const numbered = new Chess(startFen);
    const parts = [];
    line.forEach((m, i) => {
        if (numbered.turn() === 'w' || i === 0)
            parts.push(numbered.moveNumber() + (numbered.turn() === 'w' ? '.' : '...'));
        numbered.move(m.san);
        parts.push(i === cursor - 1 ? '[' + m.san + ']' : m.san);
    });
    $('moves').textContent = parts.join(' ');
    showClocks();
}

function resultOf(position) {
    if (position.isCheckmate())
        return (position.turn() === 'w' ? '0-1' : '1-0') + ', checkmate';
    if (position.isStalemate())
        return '½-½, stalemate';
    if (position.isThreefoldRepetition())
        return '½-½, threefold repetition';
    if (position.isDrawByFiftyMoves())
        return '½-½, fifty-move rule';
    if (position.isInsufficientMaterial())
        return '½-½, insufficient material';
    return null;
}

function endGame(text) {
    over = text;
    clock.stop();
    $('result').textContent = text;
    showClocks();
}

// Plays a legal move on the line (dropping whatever followed the cursor) and on the board.
function playMove(wanted) {
    const move = game.move(wanted);
    line = line.slice(0, cursor);
    line.push(move);
    cursor = line.length;
    rebuild();
    if (mode === 'play') {
        clock.press(game.turn());
        const result = resultOf(game);
        if (result)
            endGame(result);
    }
    return move;
}

function userMove(wanted) {
    playMove(wanted);
    if (mode === 'play' && !over)
        engineToMove();
    else if (mode === 'analyse' && analysing)
        analyse();
}

function engineToMove() {
    const { w, b } = clock.ms;
    const inc = clock.inc;
    startSearch('play', `wtime ${Math.round(w)} btime ${Math.round(b)} winc ${inc} binc ${inc}`);
}

function engineMoved(uci, searched) {
    if (mode !== 'play' || over || searched.fen !== game.fen())
        return;
    try {
        playMove({ from: uci.slice(0, 2), to: uci.slice(2, 4), promotion: uci[4] });
    } catch {
        showMessage('The engine answered an illegal move: ' + uci);
    }
}

function canMoveNow() {
    if (over)
        return false;
    return mode === 'analyse' || (game.turn() === userColour && !search.current);
}

// ------------------------------------------------------------------------------------------
// Analysis

let analysing = false;

// Infinite analysis; the single-threaded engine cannot be stopped in a search, so there it
// is a chain of one-second searches (the table keeps what the earlier ones found).
function analyse() {
    analysing = true;
    startSearch('analyse', engine.threaded ? 'infinite' : 'movetime 1000');
}

function stopAnalysis() {
    analysing = false;
    if (search.current)
        engine.send('stop');  // its bestmove is shown
}

function toAnalysis() {
    if (mode === 'play') {
        cancelSearch();
        clock.stop();
        mode = 'analyse';
        over = null;
        $('result').textContent = '';
        showClocks();
    }
}

function setFen(fen) {
    let position;
    try {
        position = new Chess(fen.trim());
    } catch (error) {
        showMessage('FEN refused: ' + error.message);
        return false;
    }
    hideMessage();
    toAnalysis();
    cancelSearch();
    startFen = position.fen();
    line = [];
    cursor = 0;
    rebuild();
    return true;
}

function loadPgn(text) {
    const loaded = new Chess();
    try {
        loaded.loadPgn(text);
    } catch (error) {
        showMessage('PGN refused: ' + error.message);
        return;
    }
    hideMessage();
    toAnalysis();
    cancelSearch();
    const moves = loaded.history({ verbose: true });
    startFen = moves.length ? moves[0].before : loaded.fen();
    line = moves;
    cursor = 0;
    rebuild();
}

function step(to) {
    cursor = Math.max(0, Math.min(line.length, to));
    toAnalysis();
    rebuild();
    if (analysing)
        analyse();
    else
        cancelSearch();
}

// ------------------------------------------------------------------------------------------
// Messages, controls, links

function showMessage(text) {
    const el = $('message');
    el.textContent = text;
    el.hidden = false;
}

function hideMessage() {
    $('message').hidden = true;
}

function newGame() {
    cancelSearch();
    analysing = false;
    mode = 'play';
    over = null;
    $('result').textContent = '';
    startFen = START_FEN;
    line = [];
    cursor = 0;
    userColour = $('colour-choice').value;
    const [seconds, inc] = $('clock-choice').value.split('+').map(Number);
    clock.set(seconds, inc);
    board.setOrientation(userColour === 'w' ? COLOR.white : COLOR.black);
    rebuild();
    clock.press('w');
    if (userColour !== 'w')
        engineToMove();
}

function takeBack() {
    if (mode !== 'play') {
        step(cursor - 1);
        return;
    }
    cancelSearch();
    // Back to the user's own turn: one ply while the engine thinks, otherwise two.
    cursor = game.turn() === userColour ? cursor - 2 : cursor - 1;
    cursor = Math.max(0, cursor);
    line = line.slice(0, cursor);
    over = null;
    $('result').textContent = '';
    rebuild();
    clock.stop();
    clock.running = game.turn();
    clock.since = performance.now();
    if (game.turn() !== userColour)
        engineToMove();
}

const board = new Chessboard($('board'), {
    position: START_FEN,
    assetsUrl: 'assets/',
    style: { animationDuration: 150 },
    extensions: [{ class: PromotionDialog }],
});

board.enableMoveInput((event) => {
    const from = event.squareFrom, to = event.squareTo;
    switch (event.type) {
    case INPUT_EVENT_TYPE.moveInputStarted:
        return canMoveNow() && game.moves({ square: from }).length > 0;
    case INPUT_EVENT_TYPE.validateMoveInput: {
        if (!canMoveNow())
            return false;
        const moves = game.moves({ square: from, verbose: true }).filter((m) => m.to === to);
        if (moves.length === 0)
            return false;
        if (moves[0].promotion) {
            board.showPromotionDialog(to, game.turn() === 'w' ? COLOR.white : COLOR.black, (result) => {
                if (result.type === PROMOTION_DIALOG_RESULT_TYPE.pieceSelected)
                    userMove({ from, to, promotion: result.piece.charAt(1) });
                else
                    board.setPosition(game.fen(), true);
            });
            return true;
        }
        userMove({ from, to });
        return true;
    }
    default:
        return true;
    }
});

$('new-game').onclick = newGame;
$('take-back').onclick = takeBack;
$('flip').onclick = () => {
    board.setOrientation(board.getOrientation() === COLOR.white ? COLOR.black : COLOR.white);
    showClocks();
};
$('set-fen').onclick = () => setFen($('fen').value);
$('load-pgn').onclick = () => loadPgn($('pgn').value);
$('step-first').onclick = () => step(0);
$('step-back').onclick = () => step(cursor - 1);
$('step-forward').onclick = () => step(cursor + 1);
$('step-last').onclick = () => step(line.length);
$('analyse').onclick = () => {
    toAnalysis();
    analyse();
};
$('stop').onclick = stopAnalysis;

const params = new URLSearchParams(location.search);

function afterEngineReady() {
    const movetime = Number(params.get('movetime'));
    if (params.has('fen') && movetime > 0 && !over && mode === 'analyse' && !search.current)
        startSearch('analyse', 'movetime ' + Math.round(movetime));
}

engine.start();

if (params.has('fen'))
    setFen(params.get('fen'));
else
    rebuild();
