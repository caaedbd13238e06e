#include "jtag/Discovery.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cctype>
#include <cstdio>

#include "jtag/Jep106.h"
#include "jtag/Json.h"

namespace jtag {

void BsdlCatalogue::add(std::shared_ptr<const bsdl::Device> device) {
    // The same file twice (named, and in a directory searched) is one file.
    char* real = ::realpath(device->file.c_str(), nullptr);
    std::string key = real ? real : device->file;
    std::free(real);
    if (!paths_.insert(key).second) return;
    devices_.push_back(std::move(device));
}

bool BsdlCatalogue::addFile(const std::string& path, bsdl::Error* error) {
    auto device = std::make_shared<bsdl::Device>();
    if (!bsdl::readFile(path, device.get(), error)) return false;
    add(std::move(device));
    return true;
}

void BsdlCatalogue::addDirectory(const std::string& dir) {
    DIR* d = ::opendir(dir.c_str());
    if (!d) return;
    std::vector<std::string> names;
    while (dirent* e = ::readdir(d))
        if (e->d_name[0] != '.') names.push_back(e->d_name);
    ::closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        size_t dot = name.rfind('.');
        std::string ext = dot == std::string::npos ? "" : name.substr(dot + 1);
        for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (ext != "bsd" && ext != "bsdl") continue;
        std::string path = dir + "/" + name;
        struct stat st = {};
        if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        bsdl::Error error;
        if (!addFile(path, &error)) warnings_.push_back(error.text());
    }
}

void BsdlCatalogue::addPath(const std::string& dirs) {
    for (size_t from = 0; from <= dirs.size();) {
        size_t colon = dirs.find(':', from);
        if (colon == std::string::npos) colon = dirs.size();
        if (colon > from) addDirectory(dirs.substr(from, colon - from));
        from = colon + 1;
    }
}

std::vector<std::shared_ptr<const bsdl::Device>> BsdlCatalogue::find(uint32_t idcode) const {
    std::vector<std::shared_ptr<const bsdl::Device>> found;
    for (const auto& d : devices_)
        if (!d->idcode.empty() && d->matches(idcode)) found.push_back(d);
    return found;
}

const char* irFromName(DeviceFacts::IrFrom from) {
    switch (from) {
        case DeviceFacts::IrFrom::bsdl: return "bsdl";
        case DeviceFacts::IrFrom::option: return "option";
        case DeviceFacts::IrFrom::detected: return "detected";
        case DeviceFacts::IrFrom::guess: return "guess";
    }
    return "";
}

std::string idcodePattern(const bsdl::Device& d) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out = "0x";
    for (size_t at = 0; at + 4 <= d.idcode.size(); at += 4) {
        std::string nibble = d.idcode.substr(at, 4);
        if (nibble.find_first_not_of("01") != std::string::npos) {
            out += 'x';
            continue;
        }
        out += kDigits[std::stoi(nibble, nullptr, 2)];
    }
    return out;
}

Discovery discover(Tap& tap, const BsdlCatalogue& catalogue, const DiscoveryOptions& options) {
    Discovery r;
    r.scan = scanChain(tap, options.maxDevices);
    if (r.scan.fault != ChainScan::Fault::none) return r;
    size_t n = r.scan.idcodes.size();
    std::vector<unsigned> known(n, 0);
    r.devices.resize(n);
    for (size_t i = 0; i < n; ++i) {
        DeviceFacts& f = r.devices[i];
        f.position = static_cast<unsigned>(i);
        f.idcode = r.scan.idcodes[i];
        if (f.idcode) {
            if (const char* name = jep106Name(jep106Bank(*f.idcode), jep106Code(*f.idcode))) f.manufacturer = name;
        }
        auto chosen = options.bsdlAt.find(f.position);
        if (chosen != options.bsdlAt.end()) {
            const bsdl::Device& file = *chosen->second;
            // A file for another part would put the wrong opcodes in this
            // device's instruction register and the wrong cells on its pins.
            bool same = f.idcode ? !file.idcode.empty() && file.matches(*f.idcode) : file.idcode.empty();
            if (!same) {
                char read[16];
                std::snprintf(read, sizeof read, "0x%08x", f.idcode.value_or(0));
                r.bsdlProblem = "device " + std::to_string(f.position) + " has " +
                                (f.idcode ? "IDCODE " + std::string(read) : std::string("no IDCODE (BYPASS after reset)")) +
                                ", but " + file.file + " describes " + file.entity + ", " +
                                (file.idcode.empty() ? std::string("which has no IDCODE") : "IDCODE " + idcodePattern(file));
                r.devices.clear();
                return r;
            }
            f.bsdl = chosen->second;
        } else if (f.idcode) {
            auto found = catalogue.find(*f.idcode);
            if (!found.empty()) f.bsdl = found.front();
            for (size_t k = 1; k < found.size(); ++k) f.otherBsdl.push_back(found[k]->file);
        }
        auto given = options.irLength.find(f.position);
        if (given != options.irLength.end()) {
            known[i] = given->second;
            f.irFrom = DeviceFacts::IrFrom::option;
        } else if (f.bsdl) {
            known[i] = f.bsdl->irLength;
            f.irFrom = DeviceFacts::IrFrom::bsdl;
        }
    }
    IrSplit split = splitIr(r.scan.irCapture, n, known);
    r.irTotal = static_cast<unsigned>(r.scan.irCapture.size());
    if (split.lengths.empty()) {
        r.irProblem = "the instruction registers capture " + std::to_string(r.irTotal) +
                      " bits that no split into " + std::to_string(n) +
                      " registers of the known lengths fits (each captures ...01)";
        for (size_t i = 0; i < n; ++i) r.devices[i].irLength = known[i];
        return r;
    }
    for (size_t i = 0; i < n; ++i) {
        r.devices[i].irLength = split.lengths[i];
        if (!known[i]) r.devices[i].irFrom = split.unique ? DeviceFacts::IrFrom::detected : DeviceFacts::IrFrom::guess;
    }
    return r;
}

std::string jsonString(const std::string& s) { return jsonText(Json(s)); }

Json discoveryValue(const Discovery& d) {
    auto hex32 = [](uint32_t v) {
        char text[16];
        std::snprintf(text, sizeof text, "0x%08x", v);
        return std::string(text);
    };
    Json devices = Json::array();
    for (const DeviceFacts& f : d.devices) {
        Json device;
        device["position"] = f.position;
        device["idcode"] = f.idcode ? Json(hex32(*f.idcode)) : Json();
        device["ir_length"] = f.irLength;
        device["ir_length_from"] = irFromName(f.irFrom);
        device["manufacturer"] = f.manufacturer ? Json(*f.manufacturer) : Json();
        device["part"] = f.bsdl ? Json(f.bsdl->entity) : Json();
        device["version"] = f.idcode ? Json(*f.idcode >> kIdcodeVersionShift) : Json();
        device["bsdl"] = f.bsdl ? Json(f.bsdl->file) : Json();
        device["jep106"] = f.idcode ? Json{{"bank", jep106Bank(*f.idcode)}, {"code", jep106Code(*f.idcode)}} : Json();
        devices.push_back(std::move(device));
    }
    return Json{{"devices", std::move(devices)}, {"ir_total", d.irTotal}};
}

std::string discoveryJson(const Discovery& d) { return jsonText(discoveryValue(d)); }

}  // namespace jtag
