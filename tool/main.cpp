#include "tool/Kelvorn.h"

int main(int argc, char** argv) { return kelvornMain(argc, argv); }
