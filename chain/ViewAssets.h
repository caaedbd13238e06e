// The files of kelvorn-chain view's page (chain/view/), built into the
// program so that it serves them wherever it is installed.
#pragma once
#include <cstddef>
#include <vector>

namespace chain {

struct ViewAsset {
    const char* name;  // "index.html", "view.js", ...
    const char* type;  // its Content-Type
    const unsigned char* data;
    size_t size;
};

const std::vector<ViewAsset>& viewAssets();

}  // namespace chain
