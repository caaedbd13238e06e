#include "jtag/ChainAccess.h"

namespace jtag {

BitVector bitsOf(const std::string& msbFirst) {
    BitVector v(msbFirst.size());
    for (size_t i = 0; i < msbFirst.size(); ++i) v.set(i, msbFirst[msbFirst.size() - 1 - i] == '1');
    return v;
}

void ChainAccess::instructions(const std::map<unsigned, BitVector>& opcodes) {
    BitVector in;
    for (unsigned p = 0; p < irLengths_.size(); ++p) {
        auto it = opcodes.find(p);
        if (it != opcodes.end())
            in.append(it->second);
        else
            in.append(BitVector(irLengths_[p], true));
    }
    tap_.shiftIr(in, nullptr);
}

std::map<unsigned, BitVector> ChainAccess::data(const std::map<unsigned, BitVector>& registers) {
    BitVector in;
    std::vector<size_t> at(irLengths_.size());
    for (unsigned p = 0; p < irLengths_.size(); ++p) {
        at[p] = in.size();
        auto it = registers.find(p);
        if (it != registers.end())
            in.append(it->second);
        else
            in.append(false);
    }
    BitVector out;
    tap_.shiftDr(in, &out);
    std::map<unsigned, BitVector> captured;
    for (const auto& [p, bits] : registers) {
        BitVector c;
        c.append(out, at[p], bits.size());
        captured[p] = c;
    }
    return captured;
}

}  // namespace jtag
