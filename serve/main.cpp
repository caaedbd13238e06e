#include "serve/KelvornServe.h"

int main(int argc, char** argv) { return kelvornServeMain(argc, argv); }
