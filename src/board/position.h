// The position record with its per-ply stack, the FEN reader and the text forms.
#pragma once

#include <string>

#include "board/bitboards.h"
#include "board/types.h"

struct evalCacheEntry;
struct pawnCacheEntry;

// One record per ply of the searched line. makeMove() at ply k fills record k + 1: the
// material, scores, phase, keys and fifty-move clock from before the move, the piece it
// captured, and the castling rights and en-passant square of the new position. takeBack()
// copies the saved values back instead of recomputing them.
struct plyStruct {
    i32 savedMaterial[2];
    i32 savedPsqScore[2];
    u64 savedHashKey;
    u64 savedPawnKey;
    moveStruct* moveListEnd;     // one past the last generated move
    moveStruct* movePick;        // next slot the picker looks at
    moveStruct* quietsBegin;     // start of the quiet moves
    moveStruct* badCapturesEnd;  // losing captures are parked before this
    moveStruct* moveListBegin;   // first generated move; the next ply's list follows ours
    moveStruct hashMove;         // piece code in the score byte
    moveStruct killer1;
    moveStruct killer2;
    moveStruct bestMove;
    moveStruct currentMove;      // move played from this ply (empty for a null move)
    moveStruct excludedMove;     // left out by the singular test's search of this ply
    bitboard notPinned;          // complement of the side to move's pinned pieces
    i32 savedHalfMoveClock;
    i16 staticEval;
    u16 nullMoveDisable;
    u16 savedPhase;
    u8 capturedPiece;
    u8 enPassantSquare;          // square of the pawn that just advanced two squares
    u8 castlingRights;
    u8 pickStage;
    u8 inCheck;
    u8 moveCount;
    u8 doubleExtensions;         // double singular extensions on the line to this ply
    u8 cutNode;                  // a zero-window node expected to fail high
};

struct positionStruct {
    u8 board[64];
    u64 hashKey;
    u64 pawnKey;
    bitboard bitboards[14];     // [0]/[1] colour occupancy, [code] per piece code
    u8 sideToMove;
    i32 material[2];            // packed, pawns to queens
    i32 psqScore[2];            // packed, all pieces
    u16 phase;

    u64 qNodes;                 // quiescence nodes
    u64 nodes;                  // alpha-beta nodes
    u64 tbHits;

    i16 gamePly;                // entries in keyHistory
    i16 halfMoveClock;
    i16 bestMoveChanges;
    i16 rootScore;
    u16 rootDepth;
    u8 rootDepthComplete;
    i32 nodeCheckCountdown;
    i32 threadIndex;
    u8 pvLength;
    u8 selDepth;
    u64 searchDepth;

    // Thread-owned tables, reached through the position (null for the command position).
    i16 (*mainHistory)[64];     // [piece code][to]
    u32 (*counterMoves)[64];    // [piece code][to], packed moves
    i16* contHist[2];           // two 768 x 768 tables, keyed by the move of ply-1 / ply-2
    evalCacheEntry* evalCache;
    pawnCacheEntry* pawnCache;

    u64 keyHistory[KEY_HISTORY];
    plyStruct plyStack[PLY_STACK];

    positionStruct();
    // Points the ply-0 move list at a buffer of MOVE_BUFFER moves.
    void bindMoveBuffer(moveStruct* buffer) { plyStack[0].moveListBegin = buffer; }

    bitboard pieces(int code) const { return bitboards[code]; }
    bitboard occupied() const { return bitboards[WHITE] | bitboards[BLACK]; }
    int kingSquare(int colour) const { return lsb(bitboards[WKING + colour]); }
};

extern const char* const fenLabelPieces;   // "  PpNnBbRrQqKk"
extern const char* const promotionLabels;  // "  ppnnbbrrqq"
extern const char* const promotionPieces;  // " pnbrqk"
extern const char* const fenStartPos;

// Reads a FEN into pos. Malformed text leaves pos undefined and returns false with the
// reason in *error; callers that must keep their position parse into a scratch copy.
bool setPosition(const std::string& fen, positionStruct* pos, std::string* error = nullptr);

std::string boardToString(const positionStruct* pos);
std::string squareToString(int sq);
std::string moveToLA(const moveStruct* move, u8 side);
std::string PVToString(const positionStruct* pos);

// Recomputes from scratch what make/take-back keep incrementally (keys, material,
// piece-square sums, phase); used by the FEN reader and by the tests as the oracle.
u64 calcHashKey(u8 unused, const positionStruct* pos);
u64 calcPawnKey(const positionStruct* pos);
void calcScores(positionStruct* pos);

// True when a piece of colour `by` attacks sq with the given occupancy. Inline: the
// legality test of king moves and castling calls it at every leaf.
inline bool squareAttacked(const positionStruct* pos, int sq, int by, bitboard occ) {
    const bitboard* b = pos->bitboards;
    return (bishopAttacks(sq, occ) & (b[WBISHOP + by] | b[WQUEEN + by]))
        || (rookAttacks(sq, occ) & (b[WROOK + by] | b[WQUEEN + by]))
        || (attackByPawnTable[by][sq] & b[WPAWN + by])
        || (knightAttackTable[sq] & b[WKNIGHT + by])
        || (kingAttackTable[sq] & b[WKING + by]);
}
inline bool inCheckNow(const positionStruct* pos) {
    return squareAttacked(pos, pos->kingSquare(pos->sideToMove), pos->sideToMove ^ 1, pos->occupied());
}
