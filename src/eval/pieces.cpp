// The half of the evaluation computed on every call: king shield, pieces, mobility,
// threats, space and king danger. Attack sets are gathered per colour in the piece loop
// first, because threats and king danger need both colours' complete maps.
#include "eval/evalterms.h"
#include "eval/weights.h"

namespace evalDetail {

namespace {

struct evalInfo {
    bitboard occ;
    bitboard pawnAtt[2];
    bitboard pawnAtt2[2];  // squares attacked by two pawns
    bitboard blocked[2];   // pawns with any piece right in front of them
    bitboard attBy[2][7];  // [colour][piece type], the union of that type's attacks
    bitboard att[2];
    bitboard att2[2];  // squares attacked at least twice
    bitboard mobArea[2];
    bitboard kingZone[2];  // kingSafetyArea of each colour's own king
    bitboard pinned[2];
    bitboard discovered[2];  // pieces whose move uncovers a check on the enemy king
    bitboard pushes[2];      // safe pawn pushes
    int king[2];
    int kdCount[2];  // by attacking colour: pieces and pawns touching the enemy zone
    int kdWeight[2];
    int kdAdjacent[2];
};

template <bool Trace>
void record(evalTraceStruct* trace, int term, int colour, i32 value) {
    if constexpr (Trace)
        trace->terms[term][colour] = value;
}

template <int Us>
void initColour(evalInfo& ei, const positionStruct* pos) {
    constexpr int Them = Us ^ 1;
    const bitboard pawns = pos->bitboards[WPAWN + Us];
    const bitboard left = pawns & ~fileBB(0), right = pawns & ~fileBB(7);
    const bitboard attLeft = Us == WHITE ? left << 7 : left >> 9;
    const bitboard attRight = Us == WHITE ? right << 9 : right >> 7;
    ei.pawnAtt[Us] = attLeft | attRight;
    ei.pawnAtt2[Us] = attLeft & attRight;
    ei.blocked[Us] = pawns & (Us == WHITE ? ei.occ >> 8 : ei.occ << 8);
    ei.king[Us] = pos->kingSquare(Us);
    ei.kingZone[Us] = kingSafetyArea[Us][ei.king[Us]];

    const bitboard kingAtt = kingAttackTable[ei.king[Us]];
    ei.attBy[Us][PAWN] = ei.pawnAtt[Us];
    ei.attBy[Us][KING] = kingAtt;
    ei.attBy[Us][KNIGHT] = ei.attBy[Us][BISHOP] = ei.attBy[Us][ROOK] = ei.attBy[Us][QUEEN] = 0;
    ei.att[Us] = ei.pawnAtt[Us] | kingAtt;
    ei.att2[Us] = ei.pawnAtt2[Us] | (ei.pawnAtt[Us] & kingAtt);

    // Pieces standing alone between our king and an enemy slider: ours are pinned,
    // theirs give a discovered check when they move.
    const int k = ei.king[Us];
    bitboard snipers =
        (rookAttackAll[k] & (pos->bitboards[WROOK + Them] | pos->bitboards[WQUEEN + Them]))
        | (bishopAttackAll[k] & (pos->bitboards[WBISHOP + Them] | pos->bitboards[WQUEEN + Them]));
    while (snipers) {
        const bitboard between = inBetweenSquares[k][popLsb(snipers)] & ei.occ;
        if (between && !moreThanOne(between)) {
            if (between & pos->bitboards[Us])
                ei.pinned[Us] |= between;
            else
                ei.discovered[Them] |= between;
        }
    }
}

// Pawn shield of the own king: the rearmost own pawn on each file of the king zone.
template <int Us, bool Trace>
i32 shield(const evalInfo& ei, const positionStruct* pos, evalTraceStruct* trace) {
    bitboard pawns = pos->bitboards[WPAWN + Us] & ei.kingZone[Us];
    i32 score = 0;
    while (pawns) {
        const int s = Us == WHITE ? lsb(pawns) : msb(pawns);
        score += EVALPAWNSHIELD[Us == WHITE ? s ^ 56 : s];
        recordUse<Trace>(trace, TUNED_SHIELD, Us, Us == WHITE ? s ^ 56 : s);
        pawns &= ~fileBB(fileOf(s));
    }
    // Without the enemy queen the shelter matters half as much. Halved per half so that
    // an odd endgame sum cannot carry into the middlegame half.
    const bool halved = !pos->bitboards[WQUEEN + (Us ^ 1)];
    if (halved)
        score = S(mgOf(score) / 2, egOf(score) / 2);
    if constexpr (Trace)
        trace->shieldHalved[Us] = halved;
    return score;
}

// 1 when a knight or bishop on the outpost square s earns the second outpost entry.
template <int Us>
int outpostSecond(const positionStruct* pos, int s) {
    constexpr int Them = Us ^ 1;
    const bool defended = attackByPawnTable[Us][s] & pos->bitboards[WPAWN + Us];
    const int rank = Us == WHITE ? rankOf(s) : 7 - rankOf(s);
    switch (outpostRule) {
        case OUTPOST_NOT_TRADEABLE: {
            const bitboard sameColour = (LIGHTSQUARES & bb(s)) ? LIGHTSQUARES : ~LIGHTSQUARES;
            return defended && !pos->bitboards[WKNIGHT + Them]
                   && !(pos->bitboards[WBISHOP + Them] & sameColour);
        }
        case OUTPOST_ADVANCED:
            return rank >= 4;
        case OUTPOST_DEFENDED_ADVANCED:
            return defended && rank >= 4;
        case OUTPOST_DEFENDED_CENTRE:
            return defended && (CENTREFILES & bb(s));
        default:
            return defended;
    }
}

// One piece type of one colour: attacks, pins, mobility, king-zone tally and placement.
template <int Us, int Pt>
void pieceType(evalInfo& ei, const positionStruct* pos, i32& placement, i32& mobility) {
    constexpr int Them = Us ^ 1;
    constexpr int idx = Pt - KNIGHT;
    const bitboard ownPawns = pos->bitboards[WPAWN + Us];
    const bitboard enemyPawns = pos->bitboards[WPAWN + Them];
    const bitboard ownQueens = pos->bitboards[WQUEEN + Us];
    const int enemyKing = ei.king[Them];

    for (bitboard b = pos->bitboards[2 * Pt + Us]; b;) {
        const int s = popLsb(b);
        // Bishops see through their own queens, rooks through their own rooks and queens.
        bitboard a;
        if constexpr (Pt == KNIGHT)
            a = knightAttackTable[s];
        else if constexpr (Pt == BISHOP)
            a = bishopAttacks(s, ei.occ ^ ownQueens);
        else if constexpr (Pt == ROOK)
            a = rookAttacks(s, ei.occ ^ (pos->bitboards[WROOK + Us] | ownQueens));
        else
            a = queenAttacks(s, ei.occ);
        if (ei.pinned[Us] & bb(s)) {
            a &= inLineSquares[s][ei.king[Us]];
            placement += (attackByPawnTable[Them][s] & enemyPawns) ? EVALPINNEDPAWNATTACK[idx]
                                                                   : EVALPINNED[idx];
        }
        if (ei.discovered[Us] & bb(s))
            placement += EVALDISCOVERED[idx];

        ei.att2[Us] |= ei.att[Us] & a;
        ei.att[Us] |= a;
        ei.attBy[Us][Pt] |= a;

        const int mob = popCount(a & ei.mobArea[Us]);
        if constexpr (Pt == KNIGHT)
            mobility += EVALMOBILITYKNIGHT[mob];
        else if constexpr (Pt == BISHOP)
            mobility += EVALMOBILITYBISHOP[mob];
        else if constexpr (Pt == ROOK)
            mobility += EVALMOBILITYROOK[mob];
        else
            mobility += EVALMOBILITYQUEEN[mob];

        if (a & ei.kingZone[Them]) {
            ei.kdCount[Us]++;
            ei.kdWeight[Us] += EVALKDATTACKERWEIGHT[idx];
            ei.kdAdjacent[Us] += popCount(a & kingAttackTable[enemyKing]);
        }

        if constexpr (Pt == KNIGHT || Pt == BISHOP) {
            // An outpost: no enemy pawn on the neighbouring files can ever chase it away.
            if ((outpostMask[Us] & bb(s))
                && !(passedPawnsMask[Us][s] & ~fileBB(fileOf(s)) & enemyPawns)) {
                const int second = outpostSecond<Us>(pos, s);
                placement += Pt == KNIGHT ? EVALOUTPOSTKNIGHT[second] : EVALOUTPOSTBISHOP[second];
            }
            placement += EVALMINORKINGDISTANCE * distance[s][ei.king[Us]];
        }
        if constexpr (Pt == BISHOP) {
            const bitboard sameColour = (LIGHTSQUARES & bb(s)) ? LIGHTSQUARES : ~LIGHTSQUARES;
            placement += EVALBISHOPBLOCKEDPAWN * popCount(ei.blocked[Us] & sameColour);
        }
        if constexpr (Pt == ROOK) {
            if (!(ownPawns & fileBB(fileOf(s))))
                placement += EVALROOKONOPEN[(enemyPawns & fileBB(fileOf(s))) ? 0 : 1];
        }
        if constexpr (Pt == ROOK || Pt == QUEEN) {
            if ((RANK7BB[Us] & bb(s)) && (RANK1TO2BB[Them] & bb(enemyKing)))
                placement += Pt == ROOK ? EVALROOKONSEVENTH : EVALQUEENONSEVENTH;
        }
    }
}

template <int Us, bool Trace>
i32 pieces(evalInfo& ei, const positionStruct* pos, evalTraceStruct* trace) {
    i32 placement = 0, mobility = 0;
    pieceType<Us, KNIGHT>(ei, pos, placement, mobility);
    pieceType<Us, BISHOP>(ei, pos, placement, mobility);
    pieceType<Us, ROOK>(ei, pos, placement, mobility);
    pieceType<Us, QUEEN>(ei, pos, placement, mobility);
    record<Trace>(trace, TERM_PIECES, Us, placement);
    record<Trace>(trace, TERM_MOBILITY, Us, mobility);
    return placement + mobility;
}

// Safe pawn pushes; the set is kept for the push threats.
template <int Us>
i32 pawnPushes(evalInfo& ei, const positionStruct* pos) {
    constexpr int Them = Us ^ 1;
    const bitboard single = pawnPush<Us>(pos->bitboards[WPAWN + Us]) & ~ei.occ;
    const bitboard twice = pawnPush<Us>(single & RANK3BB[Us] & ~ei.pawnAtt[Them]) & ~ei.occ;
    ei.pushes[Us] = (single | twice) & (~ei.att[Them] | ei.att[Us]);
    return EVALPAWNPUSH * popCount(ei.pushes[Us]);
}

template <int Us>
i32 threats(const evalInfo& ei, const positionStruct* pos, bitboard passed) {
    constexpr int Them = Us ^ 1;
    const bitboard* bbs = pos->bitboards;
    const bitboard ownPawns = bbs[WPAWN + Us];
    const bitboard minors = bbs[WKNIGHT + Us] | bbs[WBISHOP + Us];
    const bitboard nonPawns = minors | bbs[WROOK + Us] | bbs[WQUEEN + Us];
    const bitboard weak =
        (ei.att[Them] & ~ei.att[Us]) | (ei.att2[Them] & ~ei.att2[Us] & ~ei.pawnAtt[Us]);
    i32 score = 0;

    score += EVALDEFENDEDONCE * popCount(nonPawns & ei.att[Them] & ei.att[Us] & ~ei.att2[Us]);
    score += EVALWEAKPAWN * popCount(ownPawns & weak & ~ei.pawnAtt[Them]);
    score += EVALMINORBYPAWN * popCount(minors & ei.pawnAtt[Them]);
    score +=
        EVALMINORBYMINOR * popCount(minors & (ei.attBy[Them][KNIGHT] | ei.attBy[Them][BISHOP]));
    score +=
        EVALMINORBYMAJOR * popCount(minors & weak & (ei.attBy[Them][ROOK] | ei.attBy[Them][QUEEN]));
    score += EVALROOKBYMINOR
             * popCount(bbs[WROOK + Us]
                        & (ei.pawnAtt[Them] | ei.attBy[Them][KNIGHT] | ei.attBy[Them][BISHOP]));
    score += EVALQUEENATTACKED * popCount(bbs[WQUEEN + Us] & ei.att[Them]);

    const bitboard pushLeft = ei.pushes[Us] & ~fileBB(0), pushRight = ei.pushes[Us] & ~fileBB(7);
    const bitboard pushAttacks =
        Us == WHITE ? (pushLeft << 7) | (pushRight << 9) : (pushLeft >> 9) | (pushRight >> 7);
    score += EVALPAWNPUSHTHREAT * popCount(pushAttacks & ~ei.pawnAtt[Us] & bbs[Them]);

    score += EVALMINORBEHINDPAWN
             * popCount(minors & RANK2TO4BB[Us] & (Us == WHITE ? ownPawns >> 8 : ownPawns << 8));
    score += EVALPASSEDSTOPCONTROL * popCount(pawnPush<Us>(passed & ownPawns) & ei.att[Us]);
    if (!(ownPawns & kingSideFiles[fileOf(ei.king[Us])]))
        score += EVALPAWNLESSFLANK;
    return score;
}

// Squares behind the own pawns on the centre files that the enemy pawns do not control.
template <int Us>
i32 space(const evalInfo& ei, const positionStruct* pos) {
    constexpr int Them = Us ^ 1;
    const bitboard pawns = pos->bitboards[WPAWN + Us];
    const bitboard behind = Us == WHITE
                                ? (pawns >> 8) | (pawns >> 16) | (pawns >> 24) | (pawns >> 32)
                                : (pawns << 8) | (pawns << 16) | (pawns << 24) | (pawns << 32);
    const bitboard squares = behind & CENTREFILES & ~pos->bitboards[Us] & ~ei.pawnAtt[Them];
    return EVALSPACE2[popCount(pos->bitboards[Us])] * popCount(squares);
}

// Danger units against the king of Us; the penalty grows with their square.
template <int Us, bool Trace>
i32 kingDanger(const evalInfo& ei, const positionStruct* pos, evalTraceStruct* trace) {
    constexpr int Them = Us ^ 1;
    const bitboard* bbs = pos->bitboards;
    const int k = ei.king[Us];
    const bitboard enemyQueens = bbs[WQUEEN + Them];
    if constexpr (Trace) {
        trace->kingAttackers[Us] = ei.kdCount[Them];
        trace->kingDanger[Us] = 0;
    }
    if (ei.kdCount[Them] + popCount(enemyQueens) <= 1)
        return 0;

    const bitboard flank = kingSideFiles[fileOf(k)] & RANK1TO5BB[Us] & ei.att[Them];
    const bitboard flank2 = flank & ei.att2[Them] & ~ei.pawnAtt[Us];
    const bitboard weak =
        ei.att[Them] & ~ei.att2[Us] & (~ei.att[Us] | ei.attBy[Us][KING] | ei.attBy[Us][QUEEN]);
    const bitboard safe = ~bbs[Them] & (~ei.att[Us] | (weak & ei.att2[Them]));

    const bitboard occ = ei.occ ^ bbs[WQUEEN + Us];
    const bitboard rookChecks = rookAttacks(k, occ), bishopChecks = bishopAttacks(k, occ);
    const bitboard knightChecks = knightAttackTable[k];
    const bitboard byRook = rookChecks & ei.attBy[Them][ROOK];
    const bitboard byBishop = bishopChecks & ei.attBy[Them][BISHOP];
    const bitboard byKnight = knightChecks & ei.attBy[Them][KNIGHT];
    const bitboard byQueen = (rookChecks | bishopChecks) & ei.attBy[Them][QUEEN];
    // The OR counts each unsafe check square once, however many kinds of piece reach it.
    const bitboard unsafeChecks =
        (byRook | byBishop | byKnight | byQueen) & ~safe & ei.mobArea[Them];

    int d = EVALKDFLANK * (popCount(flank) + popCount(flank2))
            + ei.kdCount[Them] * ei.kdWeight[Them] + EVALKDADJACENT * ei.kdAdjacent[Them]
            + EVALKDWEAK * popCount(weak & ei.kingZone[Us])
            + EVALKDUNSAFECHECK * popCount(unsafeChecks) + EVALKDOFFSET
            + EVALKDPINNED * popCount(ei.pinned[Us] & ei.kingZone[Us]);
    if (byQueen & safe & ~ei.attBy[Us][QUEEN])
        d += EVALKDQUEENCHECK;
    if (byRook & safe)
        d += EVALKDROOKCHECK;
    if (byBishop & safe)
        d += EVALKDBISHOPCHECK;
    if (byKnight & safe)
        d += EVALKDKNIGHTCHECK;
    if (!enemyQueens)
        d += EVALKDNOQUEEN;

    if constexpr (Trace)
        trace->kingDanger[Us] = d;
    return d > 0 ? -S(d * d / EVALKDMGDIVISOR, d / EVALKDEGDIVISOR) : 0;
}

}  // namespace

template <bool Trace>
i32 evaluatePieces(const positionStruct* pos, bitboard passed, evalTraceStruct* trace) {
    evalInfo ei;
    ei.occ = pos->occupied();
    ei.pinned[WHITE] = ei.pinned[BLACK] = ei.discovered[WHITE] = ei.discovered[BLACK] = 0;
    initColour<WHITE>(ei, pos);
    initColour<BLACK>(ei, pos);
    for (int c = WHITE; c <= BLACK; c++) {
        ei.mobArea[c] = ~(ei.pawnAtt[c ^ 1] | ei.blocked[c] | bb(ei.king[c]));
        ei.kdCount[c] = popCount(ei.kingZone[c ^ 1] & ei.pawnAtt[c]);
        ei.kdWeight[c] = ei.kdAdjacent[c] = 0;
    }

    i32 sh[2] = {shield<WHITE, Trace>(ei, pos, trace), shield<BLACK, Trace>(ei, pos, trace)};
    i32 pc[2] = {pieces<WHITE, Trace>(ei, pos, trace), pieces<BLACK, Trace>(ei, pos, trace)};
    i32 push[2] = {pawnPushes<WHITE>(ei, pos), pawnPushes<BLACK>(ei, pos)};
    i32 th[2] = {threats<WHITE>(ei, pos, passed), threats<BLACK>(ei, pos, passed)};
    i32 sp[2] = {space<WHITE>(ei, pos), space<BLACK>(ei, pos)};
    i32 kd[2] = {kingDanger<WHITE, Trace>(ei, pos, trace),
                 kingDanger<BLACK, Trace>(ei, pos, trace)};

    if constexpr (Trace) {
        for (int c = WHITE; c <= BLACK; c++) {
            trace->terms[TERM_SHIELD][c] = sh[c];
            trace->terms[TERM_MOBILITY][c] += push[c];
            trace->terms[TERM_THREATS][c] = th[c];
            trace->terms[TERM_SPACE][c] = sp[c];
            trace->terms[TERM_KINGDANGER][c] = kd[c];
        }
    }
    return sh[WHITE] - sh[BLACK] + pc[WHITE] - pc[BLACK] + push[WHITE] - push[BLACK] + th[WHITE]
           - th[BLACK] + sp[WHITE] - sp[BLACK] + kd[WHITE] - kd[BLACK];
}

template i32 evaluatePieces<false>(const positionStruct*, bitboard, evalTraceStruct*);
template i32 evaluatePieces<true>(const positionStruct*, bitboard, evalTraceStruct*);

}  // namespace evalDetail
