// Static exchange evaluation: the material outcome of the capture sequence on one square,
// each side capturing with its least valuable piece and free to stop.
#pragma once

#include "board/position.h"

// True when move m, followed by the best exchange on its target square, gains at least
// `threshold` for the mover (piece values of seeValue). Works for quiet moves (nothing
// captured), captures and en passant. Only the side that just captured gains the sliders
// it uncovers behind its own piece: deliberately, x-rays of the other side stay hidden.
bool seeAtLeast(const positionStruct* pos, moveStruct m, int threshold);

// The same test with every x-ray: sliders of both colours uncovered behind each piece
// that takes join the exchange. The quiescence search's filter.
bool seeAtLeastFull(const positionStruct* pos, moveStruct m, int threshold);

// The test of the capture stage: en passant and captures of a piece worth at least the
// capturer pass at once, the others by the exchange.
bool seeGoodCapture(const positionStruct* pos, moveStruct m);
