// The staged move picker of the node search.
//
// Order: the hash move; captures best-first by their ordering byte, those that lose
// material by exchange deferred; killer 1; killer 2; the counter move of the previous
// move; the quiet moves by main history plus both continuation histories; the deferred
// losing captures. In check: the hash move (when it is one of the evasions), then the
// evasions best-first by their keys. Only legal moves are handed out. The stage that
// produced the move in hand is the pickStage byte of the ply record.
#pragma once

#include "board/position.h"

enum : u8 {
    STAGE_START = 0,
    STAGE_HASH = 1,
    STAGE_GEN_CAPTURES = 2,
    STAGE_CAPTURES = 3,
    STAGE_KILLER1 = 4,
    STAGE_KILLER2 = 5,
    STAGE_COUNTER = 6,
    STAGE_QUIETS = 7,
    STAGE_BAD_CAPTURES = 8,
    STAGE_EVASIONS = 99,     // set by generateMovesCaptures in check
};

constexpr u8 BAD_CAPTURE_MARK = 255;   // ordering byte of a deferred losing capture

// Whether m (with the moving piece's code in its score byte, as the table, killers and
// counter moves keep it) could be played in pos at ply: the piece is there and ours, the
// target holds no own piece and no king, and the move fits the piece, the occupancy, the
// en-passant square and the castling rights. Pins and checks are not looked at.
bool isPseudoLegal(const positionStruct* pos, u8 ply, moveStruct m);

// isPseudoLegal and legal: used for moves read from the transposition table outside the
// node search (the principal-variation reader). Makes and takes back m to be sure;
// touches only the record of ply + 1 and key-history slots past the end.
bool isPlayableMove(positionStruct* pos, u8 ply, moveStruct m);

// A move that captures nothing; en passant counts as quiet for the move-ordering tables.
inline bool isQuietMove(const positionStruct* pos, moveStruct m) {
    return pos->board[m.to] == EMPTY || m.type == MT_ENPASSANT;
}

// Swaps the best-scored move of [first, end) to *first. On a tie the earlier move wins
// (strict >); breaking ties otherwise reorders the search and changes the bench count.
inline void selectBest(moveStruct* first, moveStruct* end) {
    moveStruct* best = first;
    for (moveStruct* m = first + 1; m < end; m++)
        if (m->score > best->score)
            best = m;
    moveStruct t = *first;
    *first = *best;
    *best = t;
}

// Whether m, legal in pos, checks the enemy king (directly, by discovery, by the
// promoted piece or by the castling rook).
bool givesCheck(const positionStruct* pos, moveStruct m);

inline int contHistIndex(int piece, int to) { return (piece - 2) * 64 + to; }

// Combined history of the quiet move m of `piece` at ply: main + both continuations.
int quietHistory(const positionStruct* pos, u8 ply, moveStruct m, int piece);

// Squares where each of our piece kinds stands attacked by a cheaper enemy piece, by piece
// kind (knights and bishops: pawns; rooks: pawns and minors; queens: also rooks).
struct threatMap {
    bitboard byLesser[KING + 1];
};

struct movePickerStruct {
    positionStruct* pos;
    u8 ply;
    bool inCheck;
    moveStruct hashMove;      // empty when it did not pass the validity test
    moveStruct killer1, killer2, counterMove;
    moveStruct* capturesEnd;
    threatMap threats;        // filled when the quiet moves are generated, unset before
};

// Prepares the picker of the node at ply; hashMove may be anything the table returned.
void initMovePicker(movePickerStruct& mp, positionStruct* pos, u8 ply, moveStruct hashMove);

// The next legal move (piece code in the score byte), or EMPTYMOVE when none is left.
moveStruct nextMove(movePickerStruct& mp);
