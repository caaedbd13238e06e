#include "jtag/Bsdl.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <map>
#include <numeric>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "jtag/TextFile.h"

namespace jtag::bsdl {

namespace {

constexpr size_t kMaxFileBytes = 16u << 20;        // a BSDL file larger than this is not one
constexpr unsigned kMaxIrLength = 1024;            // bits of an instruction register
constexpr unsigned kMaxBoundaryLength = 1u << 20;  // cells of a boundary register
constexpr unsigned long kMaxVectorIndex = 1ul << 20;  // a bit_vector port's bounds
constexpr unsigned kIdcodeBits = 32;
// Opcodes are checked against each other per pair of layouts of their X
// bits (which bits are X): time grows with the opcodes times the layouts.
// Makers' files have a few; more than this is refused.
constexpr size_t kMaxOpcodeLayouts = 64;
constexpr uint32_t kNone = UINT32_MAX;
constexpr const char* kSample = "SAMPLE";
constexpr const char* kPreload = "PRELOAD";

char up(char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); }

std::string upper(std::string_view s) {
    std::string u(s);
    for (char& c : u) c = up(c);
    return u;
}

// VHDL's names compare without case.
bool same(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (up(a[i]) != up(b[i])) return false;
    return true;
}

bool before(std::string_view a, std::string_view b) {
    size_t n = std::min(a.size(), b.size());
    for (size_t i = 0; i < n; ++i)
        if (up(a[i]) != up(b[i])) return up(a[i]) < up(b[i]);
    return a.size() < b.size();
}

// Positions of items in the order of their names without case; equal names
// in the order of the items.
template <class T>
std::vector<uint32_t> nameIndex(const std::vector<T>& items) {
    std::vector<uint32_t> order(items.size());
    std::iota(order.begin(), order.end(), 0u);
    std::stable_sort(order.begin(), order.end(),
                     [&](uint32_t a, uint32_t b) { return before(items[a].name, items[b].name); });
    return order;
}

// The first item (in the items' order) whose name an earlier item has; kNone when none.
template <class T>
uint32_t firstRepeat(const std::vector<T>& items, const std::vector<uint32_t>& order) {
    uint32_t first = kNone;
    for (size_t k = 1; k < order.size(); ++k)
        if (same(items[order[k]].name, items[order[k - 1]].name)) first = std::min(first, order[k]);
    return first;
}

template <class T>
const T* byName(const std::vector<T>& items, const std::vector<uint32_t>& index, std::string_view name) {
    if (index.size() != items.size()) {
        for (const T& item : items)
            if (same(item.name, name)) return &item;
        return nullptr;
    }
    auto at = std::lower_bound(index.begin(), index.end(), name,
                               [&](uint32_t i, std::string_view n) { return before(items[i].name, n); });
    return at != index.end() && same(items[*at].name, name) ? &items[*at] : nullptr;
}

// A fault found while reading: the line and what is wrong.
struct Fault {
    unsigned line;
    std::string message;
};

// ---- the VHDL text: identifiers, numbers, strings, punctuation ----

struct Token {
    enum Kind { word, string, symbol, end } kind = end;
    std::string_view text;  // in the file's text; a string's contents without the quotes
    unsigned line = 0;
};

// The tokens one at a time, as the reader asks for them: none is kept but
// the next, so a file of punctuation costs no more than its text.
class Lexer {
  public:
    explicit Lexer(std::string_view text) : s_(text) {}

    const Token& peek() {
        if (!ahead_) {
            next_ = scan();
            ahead_ = true;
        }
        return next_;
    }
    Token get() {
        Token t = peek();
        if (t.kind != Token::end) ahead_ = false;
        last_ = t.line;
        return t;
    }
    unsigned lastLine() const { return last_; }  // the line of the token taken last

  private:
    Token scan() {
        size_t n = s_.size();
        while (i_ < n) {
            char c = s_[i_];
            if (c == '\n') {
                ++line_;
                ++i_;
            } else if (std::isspace(static_cast<unsigned char>(c))) {
                ++i_;
            } else if (c == '-' && i_ + 1 < n && s_[i_ + 1] == '-') {
                while (i_ < n && s_[i_] != '\n') ++i_;
            } else if (c == '"') {
                size_t close = i_ + 1;
                while (close < n && s_[close] != '"' && s_[close] != '\n') ++close;
                if (close >= n || s_[close] != '"') throw Fault{line_, "a string that does not end on its line"};
                Token t{Token::string, s_.substr(i_ + 1, close - i_ - 1), line_};
                i_ = close + 1;
                return t;
            } else if (std::isalnum(static_cast<unsigned char>(c)) || c == '_') {
                size_t start = i_;
                while (i_ < n && (std::isalnum(static_cast<unsigned char>(s_[i_])) || s_[i_] == '_' || s_[i_] == '.')) ++i_;
                return {Token::word, s_.substr(start, i_ - start), line_};
            } else if (c == ':' && i_ + 1 < n && s_[i_ + 1] == '=') {
                i_ += 2;
                return {Token::symbol, s_.substr(i_ - 2, 2), line_};
            } else {
                return {Token::symbol, s_.substr(i_++, 1), line_};
            }
        }
        return {Token::end, {}, line_};
    }

    std::string_view s_;
    size_t i_ = 0;
    unsigned line_ = 1, last_ = 1;
    Token next_;
    bool ahead_ = false;
};

// ---- the contents of a string attribute, joined from its pieces ----

// The text of "a" & "b" & ..., with where each piece begins and its line.
struct Joined {
    std::string text;
    std::vector<std::pair<uint32_t, unsigned>> pieces;  // offset in text, line; empty pieces left out

    // The line of the character at i (past the end: of the last character).
    unsigned lineAt(size_t i) const {
        if (pieces.empty()) return 0;
        auto at = std::upper_bound(pieces.begin(), pieces.end(), i,
                                   [](size_t v, const std::pair<uint32_t, unsigned>& p) { return v < p.first; });
        return at == pieces.begin() ? pieces.front().second : std::prev(at)->second;
    }
};

// Words and punctuation inside an attribute's string.
class Inner {
  public:
    explicit Inner(const Joined& j) : j_(j) {}

    bool atEnd() {
        skip();
        return i_ >= j_.text.size();
    }
    unsigned line() {
        skip();
        return j_.lineAt(i_);
    }
    bool take(char c) {
        skip();
        if (i_ < j_.text.size() && j_.text[i_] == c) {
            ++i_;
            return true;
        }
        return false;
    }
    void expect(char c, const char* where) {
        if (!take(c)) throw Fault{line(), std::string(where) + ": expected '" + c + "', found " + next()};
    }
    // A word: letters, digits, '_', '.', '+', '-'; empty when there is none.
    std::string word() {
        skip();
        size_t start = i_;
        while (i_ < j_.text.size() && (std::isalnum(static_cast<unsigned char>(j_.text[i_])) ||
                                        std::strchr("_.+-", j_.text[i_])))
            ++i_;
        return j_.text.substr(start, i_ - start);
    }
    std::string need(const char* what) {
        unsigned at = line();
        std::string w = word();
        if (w.empty()) throw Fault{at, std::string("expected ") + what + ", found " + next()};
        return w;
    }
    std::string next() {
        skip();
        if (i_ >= j_.text.size()) return "the end of the string";
        return std::string("'") + j_.text[i_] + "'";
    }

  private:
    void skip() {
        while (i_ < j_.text.size() && std::isspace(static_cast<unsigned char>(j_.text[i_]))) ++i_;
    }
    const Joined& j_;
    size_t i_ = 0;
};

// A decimal number up to max. Digits that make a larger number (however
// many) are refused, never wrapped.
enum class Number { ok, notNumber, tooLarge };
Number number(std::string_view w, unsigned long max, unsigned long* out) {
    if (w.empty() || w.find_first_not_of("0123456789") != std::string_view::npos) return Number::notNumber;
    unsigned long v = 0;
    for (char c : w) {
        v = v * 10 + static_cast<unsigned long>(c - '0');
        if (v > max) return Number::tooLarge;
    }
    *out = v;
    return Number::ok;
}

// A number where the file must give one: what is wrong named with `what`.
unsigned long numberOr(std::string_view w, unsigned long max, unsigned line, const std::string& what) {
    unsigned long v = 0;
    switch (number(w, max, &v)) {
        case Number::ok:
            return v;
        case Number::tooLarge:
            throw Fault{line, what + " " + std::string(w) + " is larger than " + std::to_string(max)};
        case Number::notNumber:
            break;
    }
    throw Fault{line, what + " wants a number, found '" + std::string(w) + "'"};
}

// Bits as BSDL writes them: 0, 1 and X, white space ignored.
std::string bits(const Joined& j, const char* what) {
    std::string b;
    for (size_t i = 0; i < j.text.size(); ++i) {
        char c = up(j.text[i]);
        if (std::isspace(static_cast<unsigned char>(c))) continue;
        if (c != '0' && c != '1' && c != 'X')
            throw Fault{j.lineAt(i), std::string(what) + ": '" + j.text[i] + "' is not 0, 1 or X"};
        b += c;
    }
    return b;
}

const std::map<std::string, Cell::Function>& functions() {
    static const std::map<std::string, Cell::Function> f = {
        {"INPUT", Cell::Function::input},     {"CLOCK", Cell::Function::clock},
        {"OUTPUT2", Cell::Function::output2}, {"OUTPUT3", Cell::Function::output3},
        {"CONTROL", Cell::Function::control}, {"CONTROLR", Cell::Function::controlr},
        {"INTERNAL", Cell::Function::internal}, {"BIDIR", Cell::Function::bidir},
        {"OBSERVE_ONLY", Cell::Function::observe_only},
    };
    return f;
}

// ---- instructions whose opcodes overlap ----

// Two opcodes overlap when an IR value matches both: no bit where one has 0
// and the other 1. The opcodes are bit sets (value, and a layout: the bits
// that are not X); those of one layout overlap only when equal, found by a
// hash of their values; two layouts are compared on the bits fixed in both,
// by a hash of each opcode's value on those bits. Per pair of layouts the
// work is the opcodes of the two, so the whole is the opcodes times the
// layouts, which makers' files keep to a few.
class OpcodeCheck {
  public:
    OpcodeCheck(const Device& d, const std::vector<unsigned>& lines) : d_(d), lines_(lines) {
        words_ = (d.irLength + 63) / 64;
        std::unordered_map<std::string, uint32_t> layouts;
        std::string layout(d.irLength, '.');
        for (uint32_t i = 0; i < d.instructions.size(); ++i) {
            const Instruction& in = d.instructions[i];
            for (uint32_t k = 0; k < in.opcodes.size(); ++k) {
                const std::string& op = in.opcodes[k];
                uint32_t at = static_cast<uint32_t>(ops_.size());
                values_.resize(values_.size() + words_, 0);
                for (size_t b = 0; b < op.size(); ++b) {
                    layout[b] = op[b] == 'X' ? 'X' : '.';
                    if (op[b] == '1') values_[at * words_ + b / 64] |= uint64_t{1} << b % 64;
                }
                auto [it, added] = layouts.try_emplace(layout, static_cast<uint32_t>(members_.size()));
                if (added) {
                    if (members_.size() == kMaxOpcodeLayouts)
                        throw Fault{lines_[at], "INSTRUCTION_OPCODE: opcodes with X bits in more than " +
                                                    std::to_string(kMaxOpcodeLayouts) + " layouts"};
                    members_.emplace_back();
                    masks_.resize(masks_.size() + words_, 0);
                    for (size_t b = 0; b < layout.size(); ++b)
                        if (layout[b] != 'X') masks_[it->second * words_ + b / 64] |= uint64_t{1} << b % 64;
                }
                ops_.push_back({i, k});
                members_[it->second].push_back(at);
            }
        }
    }

    void run() {
        for (size_t g = 0; g < members_.size(); ++g) within(g);
        std::vector<uint64_t> common(words_);
        for (size_t g = 0; g < members_.size(); ++g)
            for (size_t h = g + 1; h < members_.size(); ++h) {
                for (size_t w = 0; w < words_; ++w) common[w] = masks_[g * words_ + w] & masks_[h * words_ + w];
                between(g, h, common.data());
            }
    }

  private:
    struct Op {
        uint32_t instruction, index;  // in d_.instructions, in its opcodes
    };
    // Opcodes (by position) compared on the bits of a mask.
    struct OnBits {
        const std::vector<uint64_t>* values;
        const uint64_t* mask;
        size_t words;
        size_t operator()(uint32_t a) const {
            uint64_t h = 0x9e3779b97f4a7c15u;
            for (size_t w = 0; w < words; ++w) {
                h ^= (*values)[a * words + w] & mask[w];
                h *= 0xff51afd7ed558ccdu;
                h ^= h >> 32;
            }
            return static_cast<size_t>(h);
        }
        bool operator()(uint32_t a, uint32_t b) const {
            for (size_t w = 0; w < words; ++w)
                if (((*values)[a * words + w] ^ (*values)[b * words + w]) & mask[w]) return false;
            return true;
        }
    };
    // Each value met: the first opcode with it, and one of another instruction (or kNone).
    using Table = std::unordered_map<uint32_t, uint32_t, OnBits, OnBits>;

    uint32_t instruction(uint32_t op) const { return ops_[op].instruction; }
    const std::string& name(uint32_t op) const { return d_.instructions[instruction(op)].name; }
    const std::string& text(uint32_t op) const { return d_.instructions[instruction(op)].opcodes[ops_[op].index]; }

    // Aliases: SAMPLE and PRELOAD, the same register in the same mode.
    bool aliases(uint32_t a, uint32_t b) const {
        return (same(name(a), kSample) && same(name(b), kPreload)) || (same(name(a), kPreload) && same(name(b), kSample));
    }

    [[noreturn]] void overlap(uint32_t a, uint32_t b) const {
        if (a < b) std::swap(a, b);  // the later in the file where it is found
        throw Fault{lines_[a], "INSTRUCTION_OPCODE: " + name(a) + " " + text(a) + " overlaps " + name(b) + " " + text(b)};
    }

    // The opcodes of one layout: equal values of two instructions overlap,
    // unless they are SAMPLE's and PRELOAD's. What is left for the layouts'
    // pairs: each value once per instruction, twice at most.
    void within(size_t g) {
        OnBits on{&values_, &masks_[g * words_], words_};
        Table seen(members_[g].size(), on, on);
        std::vector<uint32_t> kept;
        for (uint32_t op : members_[g]) {
            auto [it, added] = seen.try_emplace(op, kNone);
            if (added) {
                kept.push_back(op);
                continue;
            }
            uint32_t first = it->first, other = it->second;
            if (instruction(first) != instruction(op) && !aliases(first, op)) overlap(first, op);
            if (other != kNone && instruction(other) != instruction(op) && !aliases(other, op)) overlap(other, op);
            if (other == kNone && instruction(first) != instruction(op)) {
                it->second = op;
                kept.push_back(op);
            }
        }
        members_[g] = std::move(kept);
    }

    // Two layouts: opcodes whose values agree on the bits both fix overlap.
    // No two of different layouts are equal: no aliases here.
    void between(size_t g, size_t h, const uint64_t* common) {
        OnBits on{&values_, common, words_};
        Table seen(members_[g].size(), on, on);
        for (uint32_t op : members_[g]) {
            auto [it, added] = seen.try_emplace(op, kNone);
            if (!added && it->second == kNone && instruction(it->first) != instruction(op)) it->second = op;
        }
        for (uint32_t op : members_[h]) {
            auto it = seen.find(op);
            if (it == seen.end()) continue;
            if (instruction(it->first) != instruction(op)) overlap(it->first, op);
            if (it->second != kNone) overlap(it->second, op);
        }
    }

    const Device& d_;
    const std::vector<unsigned>& lines_;  // of each opcode
    size_t words_;
    std::vector<Op> ops_;                        // every opcode, in the file's order
    std::vector<uint64_t> values_;               // words_ per opcode: bit b is the opcode's character b
    std::vector<uint64_t> masks_;                // words_ per layout: 1 where the bit is 0 or 1
    std::vector<std::vector<uint32_t>> members_;  // per layout, its opcodes
};

// ---- the file ----

class Reader {
  public:
    Reader(const std::string& text, Device* d) : lex_(text), d_(d) {}

    void read() {
        while (peek().kind != Token::end) {
            Token t = get();
            if (t.kind == Token::word && same(t.text, "ENTITY")) {
                d_->entity = need("the entity's name");
                skipTo("IS");
            } else if (t.kind == Token::word && same(t.text, "GENERIC")) {
                generic();
            } else if (t.kind == Token::word && same(t.text, "PORT")) {
                ports();
                if (portsRead_) throw Fault{t.line, "a second port list"};
                portsRead_ = true;
            } else if (t.kind == Token::word && same(t.text, "ATTRIBUTE")) {
                attribute();
            } else if (t.kind == Token::word && same(t.text, "CONSTANT")) {
                constant();
            } else if (t.kind == Token::word && same(t.text, "END")) {
                endLine_ = t.line;
                statementEnd();
                ended_ = true;
                break;
            } else {
                statementEndFrom(t);  // use clauses and what this reader has no need of
            }
        }
        if (d_->entity.empty()) throw Fault{peek().line, "no entity"};
        if (!ended_) throw Fault{peek().line, "the file ends before the entity's end"};
        check();
    }

  private:
    const Token& peek() { return lex_.peek(); }
    Token get() { return lex_.get(); }
    std::string need(const char* what) {
        Token t = get();
        if (t.kind != Token::word) throw Fault{t.line, std::string("expected ") + what + ", found " + shown(t)};
        return std::string(t.text);
    }
    void expect(const char* symbol) {
        Token t = get();
        if (t.kind != Token::symbol || t.text != symbol)
            throw Fault{t.line, std::string("expected '") + symbol + "', found " + shown(t)};
    }
    static std::string shown(const Token& t) {
        if (t.kind == Token::end) return "the end of the file";
        if (t.kind == Token::string) return "a string";
        return "'" + std::string(t.text) + "'";
    }
    void skipTo(const char* word) {
        while (peek().kind != Token::end && !(peek().kind == Token::word && same(peek().text, word))) get();
        if (peek().kind == Token::end) throw Fault{peek().line, std::string("unexpected end of the file; expected ") + word};
        get();
    }
    // Past the ';' that ends the statement, parentheses balanced on the way;
    // each token before it shown to `each`. `first`: a token of the
    // statement already taken.
    template <class Each>
    void statementEndEach(Each each, const Token* first = nullptr) {
        long depth = 0;
        unsigned opened = 0;
        for (bool taken = first != nullptr;; taken = false) {
            Token t = taken ? *first : get();
            if (t.kind == Token::end)
                throw Fault{depth ? opened : t.line,
                            depth ? "unbalanced parenthesis: '(' at line " + std::to_string(opened) + " is not closed"
                                  : "unexpected end of the file in a statement"};
            if (t.kind == Token::symbol) {
                if (t.text == "(") {
                    if (!depth++) opened = t.line;
                } else if (t.text == ")") {
                    if (--depth < 0) throw Fault{t.line, "unbalanced parenthesis: ')' without '('"};
                } else if (t.text == ";" && depth == 0) {
                    return;
                }
            }
            each(t);
        }
    }
    void statementEnd() {
        statementEndEach([](const Token&) {});
    }
    void statementEndFrom(const Token& first) {
        statementEndEach([](const Token&) {}, &first);
    }
    // "a" & "b" & ... up to the statement's end.
    Joined strings(const char* what) {
        Joined j;
        for (;;) {
            Token t = get();
            if (t.kind != Token::string) throw Fault{t.line, std::string(what) + ": expected a string, found " + shown(t)};
            if (!t.text.empty()) {
                j.pieces.emplace_back(static_cast<uint32_t>(j.text.size()), t.line);
                j.text += t.text;
            }
            if (peek().kind == Token::symbol && peek().text == "&") {
                get();
                continue;
            }
            break;
        }
        if (j.pieces.empty()) j.pieces.emplace_back(0, lex_.lastLine());
        expect(";");
        return j;
    }

    void generic() {
        // generic (PHYSICAL_PIN_MAP : string := "NAME");
        bool pinMap = false;
        statementEndEach([&](const Token& t) {
            if (t.kind == Token::word && same(t.text, "PHYSICAL_PIN_MAP")) pinMap = true;
            if (t.kind == Token::string && pinMap) {
                d_->defaultPackage = t.text;
                pinMap = false;
            }
        });
    }

    void ports() {
        expect("(");
        for (;;) {
            // NAME, NAME, ... : the ports go in now, their mode and type once read.
            const size_t first = d_->ports.size();
            do {
                portLines_.push_back(peek().line);
                d_->ports.emplace_back();
                d_->ports.back().name = need("a port's name");
            } while (peek().kind == Token::symbol && peek().text == "," && (get(), true));
            expect(":");
            Token modeToken = get();
            if (modeToken.kind != Token::word) throw Fault{modeToken.line, "expected a port's mode, found " + shown(modeToken)};
            Port p;
            if (same(modeToken.text, "IN"))
                p.mode = Port::Mode::in;
            else if (same(modeToken.text, "OUT"))
                p.mode = Port::Mode::out;
            else if (same(modeToken.text, "INOUT"))
                p.mode = Port::Mode::inout;
            else if (same(modeToken.text, "BUFFER"))
                p.mode = Port::Mode::buffer;
            else if (same(modeToken.text, "LINKAGE"))
                p.mode = Port::Mode::linkage;
            else
                throw Fault{modeToken.line, "unknown port mode '" + std::string(modeToken.text) + "'"};
            Token type = get();
            if (type.kind != Token::word) throw Fault{type.line, "expected a port's type, found " + shown(type)};
            if (same(type.text, "BIT_VECTOR")) {
                expect("(");
                unsigned line = peek().line;
                std::string a = need("a range");
                std::string dir = need("to or downto");
                std::string b = need("a range");
                expect(")");
                if (!same(dir, "TO") && !same(dir, "DOWNTO"))
                    throw Fault{line, "a bit_vector range wants (A to B) or (A downto B), found " + dir};
                p.first = static_cast<int>(numberOr(a, kMaxVectorIndex, line, "a bit_vector bound"));
                p.last = static_cast<int>(numberOr(b, kMaxVectorIndex, line, "a bit_vector bound"));
            } else if (!same(type.text, "BIT")) {
                throw Fault{type.line, "unknown port type '" + std::string(type.text) + "' (bit or bit_vector)"};
            }
            for (size_t k = first; k < d_->ports.size(); ++k) {
                d_->ports[k].mode = p.mode;
                d_->ports[k].first = p.first;
                d_->ports[k].last = p.last;
            }
            Token t = get();
            if (t.kind == Token::symbol && t.text == ";") continue;
            if (t.kind == Token::symbol && t.text == ")") break;
            throw Fault{t.line, "expected ';' or ')' in the port list, found " + shown(t)};
        }
        expect(";");
        d_->portsByName = nameIndex(d_->ports);
        uint32_t again = firstRepeat(d_->ports, d_->portsByName);
        if (again != kNone) throw Fault{portLines_[again], "port " + d_->ports[again].name + " declared twice"};
    }

    void constant() {
        std::string name = need("the constant's name");
        expect(":");
        std::string type = need("the constant's type");
        if (!same(type, "PIN_MAP_STRING")) {
            statementEnd();
            return;
        }
        expect(":=");
        Joined j = strings("PIN_MAP_STRING");
        const std::string what = "pin map " + name;
        if (!packageNames_.insert(upper(name)).second) throw Fault{j.lineAt(0), what + " given twice"};
        PinMap map;
        map.name = name;
        // The package each port was last mapped in: 1 + its place in packages.
        mappedIn_.resize(d_->ports.size(), 0);
        const uint32_t stamp = static_cast<uint32_t>(d_->packages.size() + 1);
        Inner in(j);
        while (!in.atEnd()) {
            unsigned line = in.line();
            std::string port = in.need("a port's name");
            in.expect(':', "pin map");
            std::vector<std::string> pins;
            bool list = in.take('(');
            if (list) {
                do pins.push_back(in.need("a pin")); while (in.take(','));
                in.expect(')', "pin map");
            } else {
                pins.push_back(in.need("a pin"));
            }
            const Port* p = d_->port(port);
            if (!p) throw Fault{line, what + ": no port " + port};
            uint32_t& mapped = mappedIn_[static_cast<size_t>(p - d_->ports.data())];
            if (mapped == stamp) throw Fault{line, what + ": port " + port + " mapped twice"};
            mapped = stamp;
            if (p->isVector()) {
                long count = std::labs(static_cast<long>(p->last) - p->first) + 1;
                if (static_cast<long>(pins.size()) != count)
                    throw Fault{line, what + ": " + port + " has " + std::to_string(count) + " elements, " +
                                          std::to_string(pins.size()) + (pins.size() == 1 ? " pin" : " pins")};
                int step = p->last >= p->first ? 1 : -1;
                for (size_t k = 0; k < pins.size(); ++k)
                    map.pins.push_back({p->name + "(" + std::to_string(p->first + step * static_cast<int>(k)) + ")",
                                        {std::move(pins[k])}});
            } else {
                if (pins.size() != 1)
                    throw Fault{line, what + ": " + port + " is a scalar port, mapped to " + std::to_string(pins.size()) +
                                          " pins (a port on several pins is a bit_vector)"};
                map.pins.push_back({p->name, std::move(pins)});
            }
            if (!in.take(',')) break;
        }
        if (!in.atEnd()) throw Fault{in.line(), what + ": expected ',', found " + in.next()};
        d_->packages.push_back(std::move(map));
    }

    void attribute() {
        std::string name = need("the attribute's name");
        if (!(peek().kind == Token::word && same(peek().text, "OF"))) {
            statementEnd();  // a declaration: attribute NAME : type;
            return;
        }
        get();
        need("what the attribute is of");
        expect(":");
        need("entity or signal");
        if (!(peek().kind == Token::word && same(peek().text, "IS"))) throw Fault{peek().line, "expected 'is', found " + shown(peek())};
        get();
        std::string a = upper(name);
        if (a == "INSTRUCTION_LENGTH") {
            Token v = get();
            unsigned long n = 0;
            if (v.kind != Token::word || number(v.text, kMaxIrLength, &n) != Number::ok || n < 2)
                throw Fault{v.line, "INSTRUCTION_LENGTH: 2 to " + std::to_string(kMaxIrLength) + ", found " + shown(v)};
            d_->irLength = static_cast<unsigned>(n);
            expect(";");
        } else if (a == "BOUNDARY_LENGTH") {
            Token v = get();
            unsigned long n = 0;
            if (v.kind != Token::word || number(v.text, kMaxBoundaryLength, &n) != Number::ok)
                throw Fault{v.line, "BOUNDARY_LENGTH: 0 to " + std::to_string(kMaxBoundaryLength) + ", found " + shown(v)};
            d_->boundaryLength = static_cast<unsigned>(n);
            expect(";");
        } else if (a == "INSTRUCTION_OPCODE") {
            opcodes(strings("INSTRUCTION_OPCODE"));
        } else if (a == "INSTRUCTION_CAPTURE") {
            Joined j = strings("INSTRUCTION_CAPTURE");
            d_->irCapture = bits(j, "INSTRUCTION_CAPTURE");
            captureLine_ = j.lineAt(0);
        } else if (a == "IDCODE_REGISTER" || a == "USERCODE_REGISTER") {
            Joined j = strings(a.c_str());
            std::string b = bits(j, a.c_str());
            if (b.size() != kIdcodeBits)
                throw Fault{j.lineAt(0), a + ": " + std::to_string(b.size()) + " bits, not " + std::to_string(kIdcodeBits)};
            (a == "IDCODE_REGISTER" ? d_->idcode : d_->usercode) = b;
        } else if (a == "REGISTER_ACCESS") {
            access(strings("REGISTER_ACCESS"));
        } else if (a == "BOUNDARY_REGISTER") {
            boundary(strings("BOUNDARY_REGISTER"));
        } else {
            statementEnd();
        }
    }

    void opcodes(const Joined& j) {
        Inner in(j);
        while (!in.atEnd()) {
            Instruction i;
            instructionLines_.push_back(in.line());
            i.name = in.need("an instruction's name");
            in.expect('(', "INSTRUCTION_OPCODE");
            do {
                unsigned at = in.line();
                Joined code;
                code.text = in.need("an opcode");
                code.pieces.emplace_back(0, at);
                i.opcodes.push_back(bits(code, "INSTRUCTION_OPCODE"));
                opcodeLines_.push_back(at);
            } while (in.take(','));
            in.expect(')', "INSTRUCTION_OPCODE");
            d_->instructions.push_back(std::move(i));
            if (!in.take(',')) break;
        }
        if (!in.atEnd()) throw Fault{in.line(), "INSTRUCTION_OPCODE: expected ',', found " + in.next()};
    }

    void access(const Joined& j) {
        Inner in(j);
        while (!in.atEnd()) {
            RegisterAccess r;
            r.reg = in.need("a register's name");
            if (in.take('[')) {
                unsigned at = in.line();
                r.length = static_cast<unsigned>(numberOr(in.need("a length"), kMaxBoundaryLength, at,
                                                          "REGISTER_ACCESS: " + r.reg + ": a length"));
                in.expect(']', "REGISTER_ACCESS");
            }
            in.expect('(', "REGISTER_ACCESS");
            do {
                unsigned at = in.line();
                r.instructions.push_back(in.need("an instruction"));
                accessLines_.push_back(at);
            } while (in.take(','));
            in.expect(')', "REGISTER_ACCESS");
            d_->registerAccess.push_back(std::move(r));
            if (!in.take(',')) break;
        }
        if (!in.atEnd()) throw Fault{in.line(), "REGISTER_ACCESS: expected ',', found " + in.next()};
    }

    void boundary(const Joined& j) {
        Inner in(j);
        boundaryLine_ = j.lineAt(0);
        while (!in.atEnd()) {
            Cell c;
            unsigned line = in.line();
            c.number = static_cast<unsigned>(
                numberOr(in.need("a cell number"), kMaxBoundaryLength - 1, line, "BOUNDARY_REGISTER: a cell number"));
            const std::string what = "BOUNDARY_REGISTER: cell " + std::to_string(c.number);
            in.expect('(', "BOUNDARY_REGISTER");
            c.cellType = in.need("a cell type");
            in.expect(',', "BOUNDARY_REGISTER");
            if (in.take('*')) {
                c.port = "*";
            } else {
                c.port = in.need("a port");
                if (in.take('(')) {
                    c.port += "(" + in.need("an index") + ")";
                    in.expect(')', "BOUNDARY_REGISTER");
                }
            }
            in.expect(',', "BOUNDARY_REGISTER");
            std::string f = upper(in.need("a cell function"));
            auto fn = functions().find(f);
            if (fn == functions().end()) throw Fault{line, what + ": unknown function " + f};
            c.function = fn->second;
            in.expect(',', "BOUNDARY_REGISTER");
            std::string safe = upper(in.need("a safe value"));
            if (safe != "0" && safe != "1" && safe != "X")
                throw Fault{line, what + ": safe value " + safe + " is not 0, 1 or X"};
            c.safe = safe[0];
            if (in.take(',')) {
                c.controlCell = static_cast<int>(
                    numberOr(in.need("a control cell"), kMaxBoundaryLength - 1, line, what + ": a control cell"));
                in.expect(',', "BOUNDARY_REGISTER");
                std::string dis = in.need("a disable value");
                if (dis != "0" && dis != "1") throw Fault{line, what + ": disable value " + dis + " is not 0 or 1"};
                c.disableValue = dis[0];
                in.expect(',', "BOUNDARY_REGISTER");
                c.disableResult = upper(in.need("a disable result"));
            }
            in.expect(')', "BOUNDARY_REGISTER");
            if (listed_.size() <= c.number) listed_.resize(c.number + 1, false);
            if (listed_[c.number]) throw Fault{line, what + " listed twice"};
            listed_[c.number] = true;
            cells_.push_back(std::move(c));
            cellLines_.push_back(line);
            if (!in.take(',')) break;
        }
        if (!in.atEnd()) throw Fault{in.line(), "BOUNDARY_REGISTER: expected ',', found " + in.next()};
    }

    bool portDeclared(const std::string& port) const {
        size_t paren = port.find('(');
        const Port* p = d_->port(port.substr(0, paren));
        if (!p) return false;
        if (paren == std::string::npos) return !p->isVector();
        unsigned long i = 0;
        if (!p->isVector() || number(std::string_view(port).substr(paren + 1, port.size() - paren - 2), kMaxVectorIndex, &i) != Number::ok)
            return false;
        long lo = std::min(p->first, p->last), hi = std::max(p->first, p->last);
        return static_cast<long>(i) >= lo && static_cast<long>(i) <= hi;
    }

    void check() {
        unsigned endLine = endLine_;
        if (!d_->irLength) throw Fault{endLine, "no INSTRUCTION_LENGTH"};
        size_t k = 0;
        for (const Instruction& i : d_->instructions)
            for (const std::string& op : i.opcodes) {
                unsigned line = opcodeLines_[k++];
                if (op.size() != d_->irLength)
                    throw Fault{line, "INSTRUCTION_OPCODE: " + i.name + " " + op + " has " + std::to_string(op.size()) +
                                          " bits; INSTRUCTION_LENGTH is " + std::to_string(d_->irLength)};
            }
        if (!d_->irCapture.empty() && d_->irCapture.size() != d_->irLength)
            throw Fault{captureLine_, "INSTRUCTION_CAPTURE has " + std::to_string(d_->irCapture.size()) +
                                          " bits; INSTRUCTION_LENGTH is " + std::to_string(d_->irLength)};
        d_->instructionsByName = nameIndex(d_->instructions);
        uint32_t again = firstRepeat(d_->instructions, d_->instructionsByName);
        if (again != kNone)
            throw Fault{instructionLines_[again], "instruction " + d_->instructions[again].name + " given twice"};
        OpcodeCheck(*d_, opcodeLines_).run();
        k = 0;
        for (const RegisterAccess& r : d_->registerAccess)
            for (const std::string& i : r.instructions) {
                unsigned line = accessLines_[k++];
                if (!d_->instruction(i)) throw Fault{line, "REGISTER_ACCESS: no instruction " + i};
            }
        cells();
        if (!d_->defaultPackage.empty() && !d_->packages.empty() && !d_->package(d_->defaultPackage))
            throw Fault{endLine, "PHYSICAL_PIN_MAP names " + d_->defaultPackage + ", which no PIN_MAP_STRING constant is"};
    }

    // The cells, each listed once (the reader saw to that), all below
    // BOUNDARY_LENGTH and none missing, are put in the order of their
    // numbers; then each one's port and control cell are looked up.
    void cells() {
        const unsigned length = d_->boundaryLength;
        for (size_t k = 0; k < cells_.size(); ++k)
            if (cells_[k].number >= length)
                throw Fault{cellLines_[k], "BOUNDARY_REGISTER: cell " + std::to_string(cells_[k].number) +
                                               " is past BOUNDARY_LENGTH " + std::to_string(length)};
        if (cells_.size() != length) {
            unsigned missing = 0;
            while (missing < listed_.size() && listed_[missing]) ++missing;
            throw Fault{boundaryLine_ ? boundaryLine_ : endLine_,
                        "BOUNDARY_REGISTER: cell " + std::to_string(missing) + " of " + std::to_string(length) + " is missing"};
        }
        // The numbers are 0 to length - 1, each once: a swap puts each in place.
        for (size_t k = 0; k < cells_.size(); ++k)
            while (cells_[k].number != k) {
                size_t to = cells_[k].number;
                std::swap(cells_[k], cells_[to]);
                std::swap(cellLines_[k], cellLines_[to]);
            }
        for (const Cell& cell : cells_) {
            unsigned line = cellLines_[cell.number];
            std::string what = "BOUNDARY_REGISTER: cell " + std::to_string(cell.number);
            if (cell.port != "*" && !portDeclared(cell.port)) throw Fault{line, what + ": no port " + cell.port};
            if (cell.controlCell >= 0) {
                if (static_cast<unsigned>(cell.controlCell) >= length)
                    throw Fault{line, what + ": control cell " + std::to_string(cell.controlCell) + " does not exist"};
                Cell::Function f = cells_[static_cast<size_t>(cell.controlCell)].function;
                if (f != Cell::Function::control && f != Cell::Function::controlr)
                    throw Fault{line, what + ": cell " + std::to_string(cell.controlCell) + " is not a control cell"};
            }
        }
        d_->boundary = std::move(cells_);
    }

    Lexer lex_;
    Device* d_;
    bool ended_ = false, portsRead_ = false;
    unsigned captureLine_ = 0, boundaryLine_ = 0, endLine_ = 0;
    std::vector<unsigned> portLines_, instructionLines_, opcodeLines_, accessLines_, cellLines_;
    std::unordered_set<std::string> packageNames_;  // upper case
    std::vector<uint32_t> mappedIn_;                // per port
    std::vector<Cell> cells_;                       // as listed
    std::vector<bool> listed_;                      // by number
};

}  // namespace

const Port* Device::port(const std::string& name) const { return byName(ports, portsByName, name); }

const Instruction* Device::instruction(const std::string& name) const {
    return byName(instructions, instructionsByName, name);
}

const PinMap* Device::package(const std::string& name) const {
    const std::string& want = name.empty() ? defaultPackage : name;
    for (const PinMap& m : packages)
        if (same(m.name, want)) return &m;
    return name.empty() && !packages.empty() ? &packages.front() : nullptr;
}

uint32_t Device::idcodeValue() const {
    uint32_t v = 0;
    for (char c : idcode) v = v << 1 | (c == '1');
    return v;
}

uint32_t Device::idcodeMask() const {
    uint32_t m = 0;
    for (char c : idcode) m = m << 1 | (c != 'X');
    return m;
}

bool Device::matches(uint32_t code) const {
    return !idcode.empty() && (code & idcodeMask()) == (idcodeValue() & idcodeMask());
}

std::string Error::text() const { return file + ":" + std::to_string(line) + ": " + message; }

bool read(const std::string& text, const std::string& fileName, Device* device, Error* error) {
    if (text.size() > kMaxFileBytes) {
        *error = {fileName, 0, "larger than " + std::to_string(kMaxFileBytes >> 20) + " MiB: not a BSDL file"};
        return false;
    }
    Device d;
    d.file = fileName;
    try {
        Reader(text, &d).read();
    } catch (const Fault& f) {
        *error = {fileName, f.line, f.message};
        return false;
    }
    *device = std::move(d);
    return true;
}

bool readFile(const std::string& path, Device* device, Error* error) {
    std::string text, why;
    if (!readText(path, kMaxFileBytes, "a BSDL file", &text, &why)) {
        *error = {path, 0, why};
        return false;
    }
    return read(text, path, device, error);
}

std::string functionName(Cell::Function f) {
    for (const auto& [name, value] : functions())
        if (value == f) {
            std::string lower = name;
            for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            return lower;
        }
    return "";
}

}  // namespace jtag::bsdl
