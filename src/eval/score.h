// Packed middlegame/endgame scores: eg * 65536 + mg in one signed 32-bit value, so
// that terms add with one instruction and are blended by phase once at the end.
#pragma once

#include "board/types.h"

constexpr i32 S(int mg, int eg) { return i32(u32(eg) << 16) + mg; }
constexpr int mgOf(i32 s) { return i16(u16(u32(s))); }
constexpr int egOf(i32 s) { return i16(u16((u32(s) + 32768u) >> 16)); }
