#include "jtag/Netlist.h"

#include <cctype>
#include <cstdint>
#include <cstring>
#include <unordered_map>
#include <unordered_set>

#include "jtag/TextFile.h"

namespace jtag::netlist {

namespace {

constexpr size_t kMaxFileBytes = 64u << 20;  // a netlist larger than this is not one of a board
constexpr uint32_t kNone = UINT32_MAX;

// One atom or list of the S-expression, kept flat: a list's children are a
// chain of siblings, so that reading needs no recursion however deep the
// input nests.
struct Item {
    bool list = false;
    std::string atom;
    unsigned line = 0;
    uint32_t first = kNone, next = kNone;
};

class Reader {
  public:
    Reader(const std::string& text, const std::string& file, Netlist* out, std::string* error)
        : text_(text), file_(file), out_(out), error_(error) {}

    bool fail(unsigned line, const std::string& what) {
        *error_ = file_ + ":" + std::to_string(line) + ": " + what;
        return false;
    }

    // Lines before the first '(' or text: blank or '#' comments.
    size_t skipLeading(unsigned* line) const {
        size_t i = 0;
        while (i < text_.size()) {
            char c = text_[i];
            if (c == '#') {
                while (i < text_.size() && text_[i] != '\n') ++i;
            } else if (std::isspace(static_cast<unsigned char>(c))) {
                if (c == '\n') ++*line;
                ++i;
            } else {
                break;
            }
        }
        return i;
    }

    bool sexpr(size_t pos, unsigned line);
    bool plain();

  private:
    bool parse(size_t pos, unsigned line);
    const Item* field(uint32_t list, const char* head) const;
    const std::string* value(uint32_t list, const char* head) const;
    bool addNet(Net net);

    const std::string& text_;
    const std::string& file_;
    Netlist* out_;
    std::string* error_;
    std::vector<Item> items_;
    std::unordered_map<std::string, size_t> netByName_;
    std::unordered_map<std::string, std::pair<size_t, unsigned>> netOfPin_;  // REF\0PIN: net, line
};

bool isDelimiter(char c) {
    return c == '(' || c == ')' || c == '"' || std::isspace(static_cast<unsigned char>(c));
}

// Builds items_ from text_ at pos; items_[0] is the outermost list.
bool Reader::parse(size_t pos, unsigned line) {
    std::vector<uint32_t> open;  // lists not yet closed
    std::vector<uint32_t> last;  // each open list's last child so far
    auto add = [&](Item item) {
        uint32_t id = static_cast<uint32_t>(items_.size());
        items_.push_back(std::move(item));
        if (!open.empty()) {
            if (last.back() == kNone)
                items_[open.back()].first = id;
            else
                items_[last.back()].next = id;
            last.back() = id;
        }
        return id;
    };
    const size_t n = text_.size();
    while (pos < n) {
        char c = text_[pos];
        if (c == '\n') {
            ++line;
            ++pos;
        } else if (std::isspace(static_cast<unsigned char>(c))) {
            ++pos;
        } else if (c == ')') {
            if (open.empty()) return fail(line, "')' without its '('");
            open.pop_back();
            last.pop_back();
            ++pos;
        } else if (!items_.empty() && open.empty()) {
            return fail(line, "text after the netlist's closing ')'");
        } else if (c == '(') {
            Item item;
            item.list = true;
            item.line = line;
            uint32_t id = add(std::move(item));
            open.push_back(id);
            last.push_back(kNone);
            ++pos;
        } else if (open.empty()) {
            return fail(line, "text before the netlist's '('");
        } else if (c == '"') {
            Item item;
            item.line = line;
            ++pos;
            for (;;) {
                if (pos >= n) return fail(item.line, "unterminated string");
                char s = text_[pos++];
                if (s == '"') break;
                if (s == '\\' && pos < n) s = text_[pos++];
                if (s == '\n') ++line;
                item.atom += s;
            }
            add(std::move(item));
        } else {
            Item item;
            item.line = line;
            size_t end = pos;
            while (end < n && !isDelimiter(text_[end])) ++end;
            item.atom.assign(text_, pos, end - pos);
            pos = end;
            add(std::move(item));
        }
    }
    if (!open.empty()) return fail(items_[open.back()].line, "'(' not closed");
    return true;
}

// The first child list of `list` whose head atom is `head`.
const Item* Reader::field(uint32_t list, const char* head) const {
    for (uint32_t k = items_[list].first; k != kNone; k = items_[k].next) {
        const Item& f = items_[k];
        if (f.list && f.first != kNone && !items_[f.first].list && items_[f.first].atom == head) return &f;
    }
    return nullptr;
}

// The atom after the head in (head VALUE); null when there is none.
const std::string* Reader::value(uint32_t list, const char* head) const {
    const Item* f = field(list, head);
    if (!f) return nullptr;
    uint32_t v = items_[f->first].next;
    if (v == kNone || items_[v].list) return nullptr;
    return &items_[v].atom;
}

bool Reader::addNet(Net net) {
    if (net.name.empty()) return fail(net.line, "net without a name");
    auto [named, fresh] = netByName_.emplace(net.name, out_->nets.size());
    if (!fresh)
        return fail(net.line, "net \"" + net.name + "\" named twice (first at line " +
                                  std::to_string(out_->nets[named->second].line) + ")");
    for (const Node& node : net.nodes) {
        std::string key = std::to_string(node.ref.size()) + ":" + node.ref + node.pin;
        auto [at, first] = netOfPin_.emplace(key, std::make_pair(out_->nets.size(), node.line));
        if (!first) {
            const std::string& other =
                at->second.first == out_->nets.size() ? net.name : out_->nets[at->second.first].name;
            return fail(node.line, "pin " + node.ref + "." + node.pin + " in net \"" + net.name +
                                       "\" is already in net \"" + other + "\" (line " +
                                       std::to_string(at->second.second) + ")");
        }
    }
    out_->nets.push_back(std::move(net));
    return true;
}

bool Reader::sexpr(size_t pos, unsigned line) {
    if (!parse(pos, line)) return false;
    const Item& top = items_[0];
    if (top.first == kNone || items_[top.first].list || items_[top.first].atom != "export")
        return fail(top.line, "not a netlist: (export ...) expected");
    for (uint32_t s = top.first; s != kNone; s = items_[s].next) {
        const Item& section = items_[s];
        if (!section.list || section.first == kNone || items_[section.first].list) continue;
        const std::string& head = items_[section.first].atom;
        if (head != "components" && head != "nets") continue;
        const char* member = head == "nets" ? "net" : "comp";
        for (uint32_t m = items_[section.first].next; m != kNone; m = items_[m].next) {
            const Item& it = items_[m];
            if (!it.list || it.first == kNone || items_[it.first].list || items_[it.first].atom != member) continue;
            if (head == "components") {
                const std::string* ref = value(m, "ref");
                if (!ref) continue;  // nothing refers to a component without a reference
                const std::string* v = value(m, "value");
                out_->components.push_back({*ref, v ? *v : std::string(), it.line});
                continue;
            }
            Net net;
            net.line = it.line;
            if (const std::string* name = value(m, "name")) net.name = *name;
            for (uint32_t k = items_[it.first].next; k != kNone; k = items_[k].next) {
                const Item& f = items_[k];
                if (!f.list || f.first == kNone || items_[f.first].list || items_[f.first].atom != "node") continue;
                Node node;
                node.line = f.line;
                const std::string* ref = value(k, "ref");
                const std::string* pin = value(k, "pin");
                if (!ref || ref->empty()) return fail(f.line, "node without a ref");
                if (!pin || pin->empty()) return fail(f.line, "node without a pin");
                node.ref = *ref;
                node.pin = *pin;
                if (const std::string* fn = value(k, "pinfunction")) node.function = *fn;
                if (const std::string* ty = value(k, "pintype")) node.type = *ty;
                net.nodes.push_back(std::move(node));
            }
            if (!addNet(std::move(net))) return false;
        }
    }
    return true;
}

bool Reader::plain() {
    unsigned line = 0;
    size_t pos = 0;
    while (pos < text_.size()) {
        ++line;
        size_t end = text_.find('\n', pos);
        if (end == std::string::npos) end = text_.size();
        std::string s = text_.substr(pos, end - pos);
        pos = end + 1;
        size_t hash = s.find('#');
        if (hash != std::string::npos) s.resize(hash);
        size_t b = 0;
        while (b < s.size() && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
        if (b == s.size()) continue;
        size_t colon = s.find(':');
        if (colon == std::string::npos) return fail(line, "no ':' after the net's name (NAME: REF.PIN ...)");
        size_t e = colon;
        while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
        Net net;
        net.line = line;
        net.name = s.substr(b, e - b);
        for (size_t i = colon + 1; i < s.size();) {
            if (std::isspace(static_cast<unsigned char>(s[i]))) {
                ++i;
                continue;
            }
            size_t j = i;
            while (j < s.size() && !std::isspace(static_cast<unsigned char>(s[j]))) ++j;
            std::string word = s.substr(i, j - i);
            i = j;
            size_t dot = word.rfind('.');
            if (dot == std::string::npos || dot == 0 || dot + 1 == word.size())
                return fail(line, "pin \"" + word + "\" not written REF.PIN");
            Node node;
            node.ref = word.substr(0, dot);
            node.pin = word.substr(dot + 1);
            node.line = line;
            net.nodes.push_back(std::move(node));
        }
        if (!addNet(std::move(net))) return false;
    }
    return true;
}

std::string upper(const std::string& s) {
    std::string u = s.substr(s.rfind('/') == std::string::npos ? 0 : s.rfind('/') + 1);
    for (char& c : u) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return u;
}

// `name` is `word`, or `word` followed by '_' or a digit and anything: GND,
// GND_ISO, VBAT1.
bool isWord(const std::string& name, const char* word) {
    size_t n = std::strlen(word);
    if (name.compare(0, n, word) != 0) return false;
    return name.size() == n || name[n] == '_' || std::isdigit(static_cast<unsigned char>(name[n]));
}

bool groundName(const std::string& u) {
    for (const char* w : {"GND", "AGND", "DGND", "PGND", "VSS", "GROUND"})
        if (isWord(u, w)) return true;
    return false;
}

// A voltage: [+|-] digits, then V and digits (3V3, 1V8, 12V) or '.' digits
// and V (3.3V); after it nothing, '_' and anything, or letters (+5VA).
bool voltageName(const std::string& u) {
    size_t i = (!u.empty() && (u[0] == '+' || u[0] == '-')) ? 1 : 0;
    size_t d = i;
    while (i < u.size() && std::isdigit(static_cast<unsigned char>(u[i]))) ++i;
    if (i == d || i == u.size()) return false;
    if (u[i] == '.') {
        size_t f = ++i;
        while (i < u.size() && std::isdigit(static_cast<unsigned char>(u[i]))) ++i;
        if (i == f || i == u.size() || u[i] != 'V') return false;
        ++i;
    } else if (u[i] == 'V') {
        ++i;
        while (i < u.size() && std::isdigit(static_cast<unsigned char>(u[i]))) ++i;
    } else {
        return false;
    }
    if (i < u.size() && u[i] == '_') return true;
    for (; i < u.size(); ++i)
        if (!std::isalpha(static_cast<unsigned char>(u[i]))) return false;
    return true;
}

bool isResistor(const std::string& ref) {
    return ref.size() >= 2 && (ref[0] == 'R' || ref[0] == 'r') && std::isdigit(static_cast<unsigned char>(ref[1]));
}

}  // namespace

bool read(const std::string& text, const std::string& fileName, Netlist* out, std::string* error) {
    *out = Netlist();
    out->file = fileName;
    Reader r(text, fileName, out, error);
    unsigned line = 1;
    size_t pos = r.skipLeading(&line);
    bool ok = pos < text.size() && text[pos] == '(' ? r.sexpr(pos, line) : r.plain();
    if (!ok) {
        *out = Netlist();
        out->file = fileName;
    }
    return ok;
}

bool readFile(const std::string& path, Netlist* out, std::string* error) {
    std::string text, why;
    if (!readText(path, kMaxFileBytes, "a board's netlist", &text, &why)) {
        *error = path + ": " + why;
        return false;
    }
    return read(text, path, out, error);
}

bool powerName(const std::string& name) {
    std::string u = upper(name);
    if (groundName(u) || voltageName(u)) return true;
    if (u.compare(0, 3, "VCC") == 0 || u.compare(0, 3, "VDD") == 0) return true;
    for (const char* w : {"VEE", "VPP", "VBAT", "VIN"})
        if (isWord(u, w)) return true;
    return false;
}

bool isPower(const Net& net) {
    if (powerName(net.name)) return true;
    for (const Node& n : net.nodes)
        if (n.type == "power_in" || n.type == "power_out") return true;
    return false;
}

bool pullOf(const Netlist& n, const Net& net, bool* up, Node* via) {
    // Every resistor's pins: the net each is on.
    std::unordered_map<std::string, std::vector<const Net*>> netsOf;
    for (const Net& x : n.nets)
        for (const Node& node : x.nodes)
            if (isResistor(node.ref)) netsOf[node.ref].push_back(&x);
    for (const Node& node : net.nodes) {
        if (!isResistor(node.ref)) continue;
        auto it = netsOf.find(node.ref);
        if (it == netsOf.end() || it->second.size() != 2) continue;
        const Net* other = it->second[0]->name == net.name ? it->second[1] : it->second[0];
        if (other->name == net.name || !isPower(*other)) continue;
        std::string u = upper(other->name);
        *up = !groundName(u) && !isWord(u, "VEE") && (u.empty() || u[0] != '-');
        if (via) *via = node;
        return true;
    }
    return false;
}

}  // namespace jtag::netlist
