#include "tablebase/tbprobe.h"

int TB_LARGEST = 0;

void init_tablebases(const std::string&) { TB_LARGEST = 0; }

int probeWDLPosition(positionStruct*, int* success) {
    *success = 0;
    return 0;
}

moveStruct syzygyProbeDTZ(int, positionStruct*) { return EMPTYMOVE; }
