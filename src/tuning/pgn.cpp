#include "tuning/pgn.h"

#include <cctype>
#include <cstring>
#include <istream>
#include <memory>
#include <ostream>

#include "board/makemove.h"
#include "board/movegen.h"

namespace {

// The piece kind of a SAN piece letter (N, B, R, Q, K); 0 for anything else.
int pieceOfLetter(char c) {
    if (!std::isupper(static_cast<unsigned char>(c)))
        return 0;
    const char* at = std::strchr(promotionPieces + KNIGHT, std::tolower(static_cast<unsigned char>(c)));
    return at ? int(at - promotionPieces) : 0;
}

}  // namespace

bool readPgnGame(std::istream& in, pgnGameStruct& g) {
    g = pgnGameStruct{};
    std::string line;
    bool inMoves = false, seen = false;
    int braces = 0, parens = 0;
    while (std::getline(in, line)) {
        if (!inMoves && braces == 0 && !line.empty() && line[0] == '[') {
            seen = true;
            const size_t q1 = line.find('"'), q2 = line.rfind('"');
            if (q1 == std::string::npos || q2 <= q1)
                continue;
            const std::string tag = line.substr(1, line.find(' ') - 1), value = line.substr(q1 + 1, q2 - q1 - 1);
            if (tag == "FEN")
                g.fen = value;
            else if (tag == "Result")
                g.result = value;
            continue;
        }
        if (line.empty() && !inMoves)
            continue;
        inMoves = seen = true;
        std::string token;
        auto flush = [&] {
            if (token.empty())
                return false;
            std::string t;
            t.swap(token);
            if (t == "1-0" || t == "0-1" || t == "1/2-1/2" || t == "*")
                return true;
            if (std::isdigit(static_cast<unsigned char>(t[0])) || t[0] == '$')
                return false;  // a move number ("12." or "12...") or a glyph
            g.moves.push_back(t);
            return false;
        };
        for (char c : line) {
            if (braces) {
                braces -= c == '}';
                continue;
            }
            if (c == '{' || c == '(' || c == ')' || std::isspace(static_cast<unsigned char>(c))) {
                if (flush())
                    return true;
                braces += c == '{';
                parens += (c == '(') - (c == ')');
                continue;
            }
            if (!parens)
                token += c;
        }
        if (flush())
            return true;
    }
    return seen;
}

moveStruct findSan(positionStruct* pos, std::string san) {
    while (!san.empty() && std::string("+#!?").find(san.back()) != std::string::npos)
        san.pop_back();
    setInCheck(0, pos);
    generateMovesLegal(0, pos->plyStack[0].moveListBegin, pos);
    const int us = pos->sideToMove;
    int type = -1, piece = PAWN, promo = 0, fromFile = -1, fromRank = -1, to = -1;
    if (san == "O-O" || san == "0-0")
        type = MT_CASTLE_K;
    else if (san == "O-O-O" || san == "0-0-0")
        type = MT_CASTLE_Q;
    else {
        if (const size_t eq = san.find('='); eq != std::string::npos) {
            promo = eq + 1 < san.size() ? pieceOfLetter(san[eq + 1]) : 0;
            if (!promo)
                return EMPTYMOVE;
            san.erase(eq);
        }
        if (pieceOfLetter(san[0])) {
            piece = pieceOfLetter(san[0]);
            san.erase(0, 1);
        }
        if (san.size() < 2)  // "Nf" and the like: no destination square
            return EMPTYMOVE;
        const char f = san[san.size() - 2], r = san[san.size() - 1];
        if (f < 'a' || f > 'h' || r < '1' || r > '8')
            return EMPTYMOVE;
        to = (r - '1') * 8 + (f - 'a');
        for (char c : san.substr(0, san.size() - 2)) {
            if (c >= 'a' && c <= 'h')
                fromFile = c - 'a';
            else if (c >= '1' && c <= '8')
                fromRank = c - '1';
            else if (c != 'x')
                return EMPTYMOVE;
        }
    }
    moveStruct found = EMPTYMOVE;
    int matches = 0;
    for (moveStruct* m = pos->plyStack[0].moveListBegin; m < pos->plyStack[0].moveListEnd; m++) {
        bool ok;
        if (type >= 0) {
            ok = m->type == type;
        } else {
            const int dest = m->type == MT_ENPASSANT ? m->to + (us == WHITE ? 8 : -8) : m->to;
            const bool isPromo = m->type >= MT_PROMO_N && m->type <= MT_PROMO_Q;
            ok = m->type != MT_CASTLE_K && m->type != MT_CASTLE_Q && dest == to
              && (pos->board[m->from] >> 1) == piece && (fromFile < 0 || fileOf(m->from) == fromFile)
              && (fromRank < 0 || rankOf(m->from) == fromRank)
              && (promo ? isPromo && m->type == MT_PROMO_N + 2 * (promo - KNIGHT) : !isPromo);
        }
        if (ok) {
            found = *m;
            matches++;
        }
    }
    return matches == 1 ? found : EMPTYMOVE;
}

std::string fenFields(const positionStruct* pos) {
    std::string s;
    for (int r = 7; r >= 0; r--) {
        int empty = 0;
        for (int f = 0; f < 8; f++) {
            const int p = pos->board[r * 8 + f];
            if (!p) {
                empty++;
                continue;
            }
            if (empty)
                s += char('0' + empty);
            empty = 0;
            s += fenLabelPieces[p];
        }
        if (empty)
            s += char('0' + empty);
        if (r)
            s += '/';
    }
    const plyStruct& p0 = pos->plyStack[0];
    s += pos->sideToMove == WHITE ? " w " : " b ";
    std::string castling;
    if (p0.castlingRights & WK_CASTLE) castling += 'K';
    if (p0.castlingRights & WQ_CASTLE) castling += 'Q';
    if (p0.castlingRights & BK_CASTLE) castling += 'k';
    if (p0.castlingRights & BQ_CASTLE) castling += 'q';
    s += castling.empty() ? "-" : castling;
    // The en-passant square only when a pawn can take there, as FEN readers expect.
    s += ' ';
    const int ep = p0.enPassantSquare;
    if (ep && (enpassantTable[ep] & pos->pieces(WPAWN + pos->sideToMove)))
        s += squareToString(ep + (pos->sideToMove == WHITE ? 8 : -8));
    else
        s += '-';
    return s;
}

void pgnToEpd(std::istream& in, const std::string& name, int skip,
              std::unordered_set<std::string>& seen, std::ostream& out, std::ostream& log,
              pgnCountsStruct& counts) {
    auto pos = std::make_unique<positionStruct>();
    std::vector<moveStruct> buffer(MOVE_BUFFER);
    for (pgnGameStruct g; readPgnGame(in, g);) {
        counts.games++;
        if (g.result != "1-0" && g.result != "0-1" && g.result != "1/2-1/2")
            continue;
        std::string error;
        if (!setPosition(g.fen, pos.get(), &error)) {
            log << name << ": game " << counts.games << ": bad FEN (" << error << ")\n";
            counts.unreadable++;
            continue;
        }
        pos->bindMoveBuffer(buffer.data());
        counts.used++;
        for (size_t ply = 0; ply < g.moves.size() && pos->gamePly < KEY_HISTORY - 8; ply++) {
            const moveStruct m = findSan(pos.get(), g.moves[ply]);
            if (m.empty()) {
                log << name << ": game " << counts.games << ": cannot read move " << g.moves[ply]
                    << "\n";
                counts.unreadable++;
                break;
            }
            const bool quietMove = !pos->board[m.to] && m.type != MT_ENPASSANT
                                && (m.type < MT_PROMO_N || m.type > MT_PROMO_Q);
            if (int(ply) >= skip && !pos->plyStack[0].inCheck && quietMove) {
                const std::string fen = fenFields(pos.get());
                if (seen.insert(fen).second) {
                    out << fen << " c9 \"" << g.result << "\";\n";
                    counts.written++;
                }
            }
            // Played as game history, the way the protocol's move list is.
            makeMove(pos.get(), 0, m);
            pos->plyStack[0].castlingRights = pos->plyStack[1].castlingRights;
            pos->plyStack[0].enPassantSquare = pos->plyStack[1].enPassantSquare;
        }
    }
}
