#include "ham/FakeHam.h"

#include <cstdio>

std::string FakeHamImpl::Access::str() const {
    char buf[48];
    std::snprintf(buf, sizeof buf, "%c%d 0x%x=0x%x", op, width, offset, value);
    return buf;
}

U32 FakeHamImpl::load(U32 offset, int width) const {
    U32 v = 0;
    for (int i = width / 8 - 1; i >= 0; --i) {
        auto it = bytes_.find(offset + static_cast<U32>(i));
        v = (v << 8) | (it == bytes_.end() ? 0u : it->second);
    }
    return v;
}

void FakeHamImpl::store(U32 offset, U32 value, int width) {
    for (int i = 0; i < width / 8; ++i) bytes_[offset + static_cast<U32>(i)] = static_cast<U8>(value >> (8 * i));
}

int FakeHamImpl::read32(U32 offset, U32* out) {
    *out = load(offset, 32);
    accesses_.push_back({'R', 32, offset, *out});
    return 0;
}
int FakeHamImpl::write32(U32 offset, U32 value) {
    store(offset, value, 32);
    accesses_.push_back({'W', 32, offset, value});
    return 0;
}
int FakeHamImpl::read16(U32 offset, U16* out) {
    *out = static_cast<U16>(load(offset, 16));
    accesses_.push_back({'R', 16, offset, *out});
    return 0;
}
int FakeHamImpl::read8(U32 offset, U8* out) {
    *out = static_cast<U8>(load(offset, 8));
    accesses_.push_back({'R', 8, offset, *out});
    return 0;
}
int FakeHamImpl::write8(U32 offset, U8 value) {
    store(offset, value, 8);
    accesses_.push_back({'W', 8, offset, value});
    return 0;
}

void FakeHamImpl::poke(U32 offset, U32 value, int width) { store(offset, value, width); }
U32 FakeHamImpl::peek(U32 offset, int width) const { return load(offset, width); }

std::vector<std::string> FakeHamImpl::log() const {
    std::vector<std::string> out;
    out.reserve(accesses_.size());
    for (const auto& a : accesses_) out.push_back(a.str());
    return out;
}

FakeHams::FakeHams() {
    Ham::providerIs([this](const HamDesc& desc) -> Ptr<HamImpl> {
        const std::string& key = desc.fileName.empty() ? desc.name : desc.fileName;
        if (declined_.count(key)) return nullptr;
        opened_.push_back(desc);
        if (onOpen) onOpen(desc);
        return Ptr<HamImpl>(&(*this)[key]);
    });
}

FakeHams::~FakeHams() { Ham::providerIs(nullptr); }

FakeHamImpl& FakeHams::operator[](const std::string& key) {
    auto& slot = fakes_[key];
    if (!slot) slot = new FakeHamImpl;
    return *slot;
}
