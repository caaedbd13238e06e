#include "chain/KelvornChain.h"

int main(int argc, char** argv) { return kelvornChainMain(argc, argv); }
