#include "play/KelvornPlay.h"

int main(int argc, char** argv) { return kelvornPlayMain(argc, argv); }
