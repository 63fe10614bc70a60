#include "board/zobrist.h"

#include <array>

u64 hashCodePiece[14][64];
u64 hashCodeCastling[16];
u64 hashCodeEnpassant[8];
u64 hashCodeBlackToMove;

namespace {

// 800 fixed pseudo-random constants, built at compile time so every build agrees.
constexpr std::array<u64, 800> makeRandomNumbers() {
    std::array<u64, 800> r{};
    u64 s = 0x5D1CE6A1F00DBEEFULL;
    for (auto& v : r) {
        v = splitMix64(s);
    }
    r[0] = 0xACFEAF947971818AULL;
    r[792] = 0xF31FA94FE63F529FULL;
    return r;
}

constexpr std::array<u64, 800> hashCodeRandomNumber = makeRandomNumbers();

}  // namespace

void initHashCodeTables() {
    for (int code = 0; code < 14; code++)
        for (int sq = 0; sq < 64; sq++)
            hashCodePiece[code][sq] = code < 2 ? 0 : hashCodeRandomNumber[(code - 2) * 64 + sq];
    for (int i = 0; i < 16; i++)
        hashCodeCastling[i] = hashCodeRandomNumber[768 + i];
    for (int i = 0; i < 8; i++)
        hashCodeEnpassant[i] = hashCodeRandomNumber[784 + i];
    hashCodeBlackToMove = hashCodeRandomNumber[792];
}
