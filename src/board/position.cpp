#include "board/position.h"

#include <charconv>
#include <cstring>
#include <sstream>
#include <vector>

#include "board/bitboards.h"
#include "board/zobrist.h"
#include "eval/weights.h"

const char* const fenLabelPieces = "  PpNnBbRrQqKk";
const char* const promotionLabels = "  ppnnbbrrqq";
const char* const promotionPieces = " pnbrqk";
const char* const fenStartPos = "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1";

positionStruct::positionStruct() {
    // Everything starts zeroed; setPosition establishes the rest.
    std::memset(static_cast<void*>(this), 0, sizeof(*this));
}

u64 calcHashKey(u8, const positionStruct* pos) {
    u64 key = 0;
    for (int sq = 0; sq < 64; sq++)
        key ^= hashCodePiece[pos->board[sq]][sq];
    const plyStruct& p0 = pos->plyStack[0];
    key ^= hashCodeCastling[p0.castlingRights];
    if (p0.enPassantSquare)
        key ^= hashCodeEnpassant[fileOf(p0.enPassantSquare)];
    if (pos->sideToMove == BLACK)
        key ^= hashCodeBlackToMove;
    return key;
}

u64 calcPawnKey(const positionStruct* pos) {
    u64 key = 0;
    for (int sq = 0; sq < 64; sq++) {
        int pc = pos->board[sq];
        if (pc == WPAWN || pc == BPAWN || pc == WKING || pc == BKING)
            key ^= hashCodePiece[pc][sq];
    }
    return key;
}

void calcScores(positionStruct* pos) {
    pos->material[0] = pos->material[1] = 0;
    pos->psqScore[0] = pos->psqScore[1] = 0;
    int phase = 0;
    for (int sq = 0; sq < 64; sq++) {
        int pc = pos->board[sq];
        if (!pc)
            continue;
        int colour = pc & 1, idx = pc / 2 - 1;
        int entry = colour == WHITE ? sq ^ 56 : sq;
        pos->psqScore[colour] += pieceSquareScore[idx * 64 + entry];
        if (idx != 5)
            pos->material[colour] += pieceValue[idx];
        if (idx >= 1 && idx <= 4)
            phase += pieceValuePhase[idx];
    }
    pos->phase = u16(phase);
}

namespace {

bool fail(std::string* error, const std::string& why) {
    if (error)
        *error = why;
    return false;
}

bool parseInt(const std::string& s, int lo, int hi, int& out) {
    const char* end = s.data() + s.size();
    auto [p, ec] = std::from_chars(s.data(), end, out);
    return ec == std::errc() && p == end && out >= lo && out <= hi;
}

}  // namespace

bool setPosition(const std::string& fen, positionStruct* pos, std::string* error) {
    std::memset(pos->board, 0, sizeof pos->board);
    std::memset(pos->bitboards, 0, sizeof pos->bitboards);

    std::vector<std::string> fields;
    std::istringstream in(fen);
    for (std::string f; in >> f;)
        fields.push_back(f);
    if (fields.size() < 2)
        return fail(error, "needs at least the board and the side to move");
    if (fields.size() > 6)
        return fail(error, "too many fields");
    static const char* const defaults[] = {"", "", "-", "-", "0", "1"};
    while (fields.size() < 6)
        fields.push_back(defaults[fields.size()]);

    // Board, from a8 rank by rank down to h1; every rank must hold exactly 8 squares.
    int rank = 7, file = 0;
    for (char c : fields[0]) {
        if (c == '/') {
            if (file != 8 || rank == 0)
                return fail(error, "wrong number of squares in a rank");
            rank--;
            file = 0;
        } else if (c >= '1' && c <= '8') {
            file += c - '0';
            if (file > 8)
                return fail(error, "wrong number of squares in a rank");
        } else {
            const char* hit = c == ' ' ? nullptr : std::strchr(fenLabelPieces + 2, c);
            if (!hit || c == 0)
                return fail(error, std::string("unknown piece letter '") + c + "'");
            if (file > 7)
                return fail(error, "wrong number of squares in a rank");
            int code = int(hit - fenLabelPieces), sq = 8 * rank + file;
            pos->board[sq] = u8(code);
            pos->bitboards[code] |= bb(sq);
            pos->bitboards[code & 1] |= bb(sq);
            file++;
        }
    }
    if (rank != 0 || file != 8)
        return fail(error, "wrong number of ranks or squares");

    const bitboard* b = pos->bitboards;
    if (popCount(b[WKING]) != 1 || popCount(b[BKING]) != 1)
        return fail(error, "each side needs exactly one king");
    if ((b[WPAWN] | b[BPAWN]) & (rankBB(0) | rankBB(7)))
        return fail(error, "pawn on the first or last rank");
    for (int c = 0; c < 2; c++) {
        int pawns = popCount(b[WPAWN + c]);
        int extra = std::max(popCount(b[WKNIGHT + c]) - 2, 0) + std::max(popCount(b[WBISHOP + c]) - 2, 0)
                  + std::max(popCount(b[WROOK + c]) - 2, 0) + std::max(popCount(b[WQUEEN + c]) - 1, 0);
        if (popCount(b[c]) > 16 || pawns + extra > 8)
            return fail(error, "impossible material");
    }

    if (fields[1] != "w" && fields[1] != "b")
        return fail(error, "side to move must be w or b");
    pos->sideToMove = fields[1] == "w" ? WHITE : BLACK;

    plyStruct& p0 = pos->plyStack[0];
    p0.castlingRights = 0;
    if (fields[2] != "-") {
        for (char c : fields[2]) {
            const char* letters = "KkQq";
            const char* hit = std::strchr(letters, c);
            if (!hit || c == 0)
                return fail(error, "bad castling field");
            p0.castlingRights |= u8(1 << (hit - letters));
        }
    }
    // A right without its king and rook in place could never be played sensibly: drop it.
    if (pos->board[4] != WKING)
        p0.castlingRights &= ~(WK_CASTLE | WQ_CASTLE);
    if (pos->board[60] != BKING)
        p0.castlingRights &= ~(BK_CASTLE | BQ_CASTLE);
    if (pos->board[7] != WROOK)
        p0.castlingRights &= ~WK_CASTLE;
    if (pos->board[0] != WROOK)
        p0.castlingRights &= ~WQ_CASTLE;
    if (pos->board[63] != BROOK)
        p0.castlingRights &= ~BK_CASTLE;
    if (pos->board[56] != BROOK)
        p0.castlingRights &= ~BQ_CASTLE;

    // En passant: we keep the double-stepped pawn's square, not the FEN's target behind it.
    p0.enPassantSquare = 0;
    const std::string& ep = fields[3];
    if (ep != "-") {
        int wantRank = pos->sideToMove == WHITE ? 5 : 2;
        if (ep.size() != 2 || ep[0] < 'a' || ep[0] > 'h' || ep[1] - '1' != wantRank)
            return fail(error, "bad en-passant square");
        int target = (ep[1] - '1') * 8 + (ep[0] - 'a');
        int pawnSq = pos->sideToMove == WHITE ? target - 8 : target + 8;
        int fromSq = pos->sideToMove == WHITE ? target + 8 : target - 8;
        // Keep it only when a pawn really stands there after a double step.
        if (pos->board[pawnSq] == WPAWN + (pos->sideToMove ^ 1) && !pos->board[target] && !pos->board[fromSq])
            p0.enPassantSquare = u8(pawnSq);
    }

    int halfMove, fullMove;
    if (!parseInt(fields[4], 0, 32767, halfMove))
        return fail(error, "bad half-move clock");
    if (!parseInt(fields[5], 0, 1000000, fullMove))
        return fail(error, "bad move number");
    pos->halfMoveClock = i16(halfMove);
    int ply = std::min(std::max(pos->sideToMove + 2 * fullMove - 2, 0), 512);
    for (int i = 0; i <= ply; i++)
        pos->keyHistory[i] = 0;

    if (squareAttacked(pos, pos->kingSquare(pos->sideToMove ^ 1), pos->sideToMove, pos->occupied()))
        return fail(error, "the side not to move is in check");

    pos->hashKey = calcHashKey(0, pos);
    pos->pawnKey = calcPawnKey(pos);
    pos->keyHistory[ply] = pos->hashKey;
    pos->gamePly = i16(ply + 1);
    p0.inCheck = inCheckNow(pos);
    calcScores(pos);
    return true;
}

std::string squareToString(int sq) {
    return {char('a' + fileOf(sq)), char('1' + rankOf(sq))};
}

std::string boardToString(const positionStruct* pos) {
    const std::string sep = "+---+---+---+---+---+---+---+---+\n";
    std::string s = sep;
    for (int rank = 7; rank >= 0; rank--) {
        for (int file = 0; file < 8; file++) {
            int pc = pos->board[8 * rank + file];
            s += "| ";
            s += pc ? fenLabelPieces[pc] : ' ';
            s += ' ';
        }
        s += "|\n" + sep;
    }
    return s;
}

std::string moveToLA(const moveStruct* move, u8 side) {
    int to = move->to;
    if (move->type == MT_ENPASSANT)
        to = side == WHITE ? to + 8 : to - 8;
    std::string s = squareToString(move->from) + squareToString(to & 63);
    if (move->type >= 1 && move->type <= 11)
        s += promotionLabels[move->type];
    return s;
}

std::string PVToString(const positionStruct* pos) {
    std::string s;
    u8 side = pos->sideToMove;
    for (int k = 0; k <= pos->pvLength; k++) {
        s += moveToLA(&pos->plyStack[k].currentMove, side) + " ";
        side ^= 1;
    }
    return s;
}
