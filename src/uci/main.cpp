#include "uci/uci.h"

int main(int argc, char** argv) { return uciMain(argc, argv); }
