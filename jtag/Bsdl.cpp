#include "jtag/Bsdl.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace jtag::bsdl {

namespace {

constexpr size_t kMaxFileBytes = 16u << 20;     // a BSDL file larger than this is not one
constexpr unsigned kMaxIrLength = 1024;         // bits of an instruction register
constexpr unsigned kMaxBoundaryLength = 1u << 20;  // cells of a boundary register
constexpr long kMaxVectorElements = 1L << 20;   // elements of a bit_vector port
constexpr unsigned kIdcodeBits = 32;

std::string upper(std::string s) {
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}
bool same(const std::string& a, const std::string& b) { return upper(a) == upper(b); }

// A fault found while reading: the line and what is wrong.
struct Fault {
    unsigned line;
    std::string message;
};

// ---- the VHDL text: identifiers, numbers, strings, punctuation ----

struct Token {
    enum Kind { word, string, symbol, end } kind = end;
    std::string text;  // a string's contents without the quotes
    unsigned line = 0;
};

std::vector<Token> tokenize(const std::string& text) {
    std::vector<Token> tokens;
    unsigned line = 1;
    size_t i = 0, n = text.size();
    while (i < n) {
        char c = text[i];
        if (c == '\n') {
            ++line;
            ++i;
        } else if (std::isspace(static_cast<unsigned char>(c))) {
            ++i;
        } else if (c == '-' && i + 1 < n && text[i + 1] == '-') {
            while (i < n && text[i] != '\n') ++i;
        } else if (c == '"') {
            size_t close = i + 1;
            while (close < n && text[close] != '"' && text[close] != '\n') ++close;
            if (close >= n || text[close] != '"') throw Fault{line, "a string that does not end on its line"};
            tokens.push_back({Token::string, text.substr(i + 1, close - i - 1), line});
            i = close + 1;
        } else if (std::isalnum(static_cast<unsigned char>(c)) || c == '_') {
            size_t start = i;
            while (i < n && (std::isalnum(static_cast<unsigned char>(text[i])) || text[i] == '_' || text[i] == '.'))
                ++i;
            tokens.push_back({Token::word, text.substr(start, i - start), line});
        } else if (c == ':' && i + 1 < n && text[i + 1] == '=') {
            tokens.push_back({Token::symbol, ":=", line});
            i += 2;
        } else {
            tokens.push_back({Token::symbol, std::string(1, c), line});
            ++i;
        }
    }
    tokens.push_back({Token::end, "", line});
    return tokens;
}

// ---- the contents of a string attribute, joined from its pieces ----

// The text of "a" & "b" & ..., with the line of each character's piece.
struct Joined {
    std::string text;
    std::vector<unsigned> lines;
    unsigned lineAt(size_t i) const { return lines.empty() ? 0 : lines[std::min(i, lines.size() - 1)]; }
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

bool number(const std::string& w, unsigned long max, unsigned long* out) {
    if (w.empty() || w.size() > 10 || w.find_first_not_of("0123456789") != std::string::npos) return false;
    unsigned long v = std::stoul(w);
    if (v > max) return false;
    *out = v;
    return true;
}

// Bits as BSDL writes them: 0, 1 and X, white space ignored.
std::string bits(const Joined& j, const char* what) {
    std::string b;
    for (size_t i = 0; i < j.text.size(); ++i) {
        char c = static_cast<char>(std::toupper(static_cast<unsigned char>(j.text[i])));
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

// ---- the file ----

class Reader {
  public:
    Reader(const std::string& text, Device* d) : t_(tokenize(text)), d_(d) {}

    void read() {
        while (peek().kind != Token::end) {
            const Token& t = get();
            std::string w = upper(t.text);
            if (t.kind == Token::word && w == "ENTITY") {
                d_->entity = need("the entity's name").text;
                skipTo("IS");
            } else if (t.kind == Token::word && w == "GENERIC") {
                generic();
            } else if (t.kind == Token::word && w == "PORT") {
                ports();
            } else if (t.kind == Token::word && w == "ATTRIBUTE") {
                attribute();
            } else if (t.kind == Token::word && w == "CONSTANT") {
                constant();
            } else if (t.kind == Token::word && w == "END") {
                endLine_ = t.line;
                statementEnd();
                ended_ = true;
                break;
            } else {
                --at_;
                statementEnd();  // use clauses and what this reader has no need of
            }
        }
        if (d_->entity.empty()) throw Fault{peek().line, "no entity"};
        if (!ended_) throw Fault{peek().line, "the file ends before the entity's end"};
        check();
    }

  private:
    const Token& peek() const { return t_[at_]; }
    const Token& get() {
        const Token& t = t_[at_];
        if (t.kind != Token::end) ++at_;
        return t;
    }
    const Token& need(const char* what) {
        const Token& t = get();
        if (t.kind != Token::word) throw Fault{t.line, std::string("expected ") + what + ", found " + shown(t)};
        return t;
    }
    void expect(const char* symbol) {
        const Token& t = get();
        if (t.kind != Token::symbol || t.text != symbol)
            throw Fault{t.line, std::string("expected '") + symbol + "', found " + shown(t)};
    }
    static std::string shown(const Token& t) {
        if (t.kind == Token::end) return "the end of the file";
        if (t.kind == Token::string) return "a string";
        return "'" + t.text + "'";
    }
    void skipTo(const char* word) {
        while (peek().kind != Token::end && !(peek().kind == Token::word && same(peek().text, word))) get();
        if (peek().kind == Token::end) throw Fault{peek().line, std::string("unexpected end of the file; expected ") + word};
        get();
    }
    // Past the ';' that ends the statement, parentheses balanced on the way.
    void statementEnd() {
        int depth = 0;
        unsigned opened = 0;
        for (;;) {
            const Token& t = get();
            if (t.kind == Token::end)
                throw Fault{depth ? opened : t.line,
                            depth ? "unbalanced parenthesis: '(' at line " + std::to_string(opened) + " is not closed"
                                  : "unexpected end of the file in a statement"};
            if (t.kind != Token::symbol) continue;
            if (t.text == "(") {
                if (!depth++) opened = t.line;
            } else if (t.text == ")") {
                if (--depth < 0) throw Fault{t.line, "unbalanced parenthesis: ')' without '('"};
            } else if (t.text == ";" && depth == 0) {
                return;
            }
        }
    }
    // "a" & "b" & ... up to the statement's end.
    Joined strings(const char* what) {
        Joined j;
        for (;;) {
            const Token& t = get();
            if (t.kind != Token::string) throw Fault{t.line, std::string(what) + ": expected a string, found " + shown(t)};
            j.text += t.text;
            j.lines.insert(j.lines.end(), t.text.size(), t.line);
            if (peek().kind == Token::symbol && peek().text == "&") {
                get();
                continue;
            }
            break;
        }
        if (j.lines.empty()) j.lines.push_back(t_[at_ ? at_ - 1 : 0].line);
        expect(";");
        return j;
    }

    void generic() {
        size_t start = at_;
        statementEnd();
        // generic (PHYSICAL_PIN_MAP : string := "NAME");
        for (size_t i = start; i + 1 < at_; ++i)
            if (t_[i].kind == Token::word && same(t_[i].text, "PHYSICAL_PIN_MAP")) {
                for (size_t k = i; k < at_; ++k)
                    if (t_[k].kind == Token::string) {
                        d_->defaultPackage = t_[k].text;
                        return;
                    }
            }
    }

    void ports() {
        expect("(");
        for (;;) {
            std::vector<std::string> names{need("a port's name").text};
            while (peek().kind == Token::symbol && peek().text == ",") {
                get();
                names.push_back(need("a port's name").text);
            }
            expect(":");
            const Token& modeToken = need("a port's mode");
            std::string m = upper(modeToken.text);
            Port p;
            if (m == "IN")
                p.mode = Port::Mode::in;
            else if (m == "OUT")
                p.mode = Port::Mode::out;
            else if (m == "INOUT")
                p.mode = Port::Mode::inout;
            else if (m == "BUFFER")
                p.mode = Port::Mode::buffer;
            else if (m == "LINKAGE")
                p.mode = Port::Mode::linkage;
            else
                throw Fault{modeToken.line, "unknown port mode '" + modeToken.text + "'"};
            const Token& type = need("a port's type");
            if (same(type.text, "BIT_VECTOR")) {
                expect("(");
                const Token& a = need("a range");
                const Token& dir = need("to or downto");
                const Token& b = need("a range");
                expect(")");
                unsigned long first, last;
                if (!number(a.text, kMaxVectorElements, &first) || !number(b.text, kMaxVectorElements, &last) ||
                    (!same(dir.text, "TO") && !same(dir.text, "DOWNTO")))
                    throw Fault{a.line, "a bit_vector range wants (A to B) or (A downto B) of numbers up to " +
                                            std::to_string(kMaxVectorElements)};
                p.first = static_cast<int>(first);
                p.last = static_cast<int>(last);
            } else if (!same(type.text, "BIT")) {
                throw Fault{type.line, "unknown port type '" + type.text + "' (bit or bit_vector)"};
            }
            for (const std::string& name : names) {
                p.name = name;
                d_->ports.push_back(p);
            }
            const Token& t = get();
            if (t.kind == Token::symbol && t.text == ";") continue;
            if (t.kind == Token::symbol && t.text == ")") break;
            throw Fault{t.line, "expected ';' or ')' in the port list, found " + shown(t)};
        }
        expect(";");
    }

    void constant() {
        const Token& name = need("the constant's name");
        expect(":");
        const Token& type = need("the constant's type");
        if (!same(type.text, "PIN_MAP_STRING")) {
            statementEnd();
            return;
        }
        expect(":=");
        Joined j = strings("PIN_MAP_STRING");
        PinMap map;
        map.name = name.text;
        Inner in(j);
        while (!in.atEnd()) {
            unsigned line = in.line();
            std::string port = in.need("a port's name");
            in.expect(':', "pin map");
            std::vector<std::string> pins;
            if (in.take('(')) {
                do pins.push_back(in.need("a pin")); while (in.take(','));
                in.expect(')', "pin map");
            } else {
                pins.push_back(in.need("a pin"));
            }
            const Port* p = d_->port(port);
            if (!p) throw Fault{line, "pin map " + map.name + ": no port " + port};
            if (p->isVector()) {
                long count = std::labs(static_cast<long>(p->last) - p->first) + 1;
                if (static_cast<long>(pins.size()) != count)
                    throw Fault{line, "pin map " + map.name + ": " + port + " has " + std::to_string(count) +
                                          " elements, " + std::to_string(pins.size()) + " pins"};
                int step = p->last >= p->first ? 1 : -1;
                for (size_t k = 0; k < pins.size(); ++k)
                    map.pins.push_back({p->name + "(" + std::to_string(p->first + step * static_cast<int>(k)) + ")", {pins[k]}});
            } else {
                map.pins.push_back({p->name, pins});
            }
            if (!in.take(',')) break;
        }
        if (!in.atEnd()) throw Fault{in.line(), "pin map " + map.name + ": expected ',', found " + in.next()};
        d_->packages.push_back(std::move(map));
    }

    void attribute() {
        const Token& name = need("the attribute's name");
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
        std::string a = upper(name.text);
        if (a == "INSTRUCTION_LENGTH") {
            const Token& v = get();
            unsigned long n;
            if (v.kind != Token::word || !number(v.text, kMaxIrLength, &n) || n < 2)
                throw Fault{v.line, "INSTRUCTION_LENGTH: 2 to " + std::to_string(kMaxIrLength) + ", found " + shown(v)};
            d_->irLength = static_cast<unsigned>(n);
            expect(";");
        } else if (a == "BOUNDARY_LENGTH") {
            const Token& v = get();
            unsigned long n;
            if (v.kind != Token::word || !number(v.text, kMaxBoundaryLength, &n))
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
            unsigned line = in.line();
            i.name = in.need("an instruction's name");
            in.expect('(', "INSTRUCTION_OPCODE");
            do {
                unsigned at = in.line();
                Joined code;
                code.text = in.need("an opcode");
                code.lines.assign(code.text.size(), at);
                i.opcodes.push_back(bits(code, "INSTRUCTION_OPCODE"));
                opcodeLines_.push_back(at);
            } while (in.take(','));
            in.expect(')', "INSTRUCTION_OPCODE");
            if (d_->instruction(i.name)) throw Fault{line, "instruction " + i.name + " given twice"};
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
                unsigned long n;
                if (!number(in.need("a length"), kMaxBoundaryLength, &n)) throw Fault{at, "REGISTER_ACCESS: a length wants a number"};
                r.length = static_cast<unsigned>(n);
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
            unsigned long n;
            if (!number(in.need("a cell number"), kMaxBoundaryLength, &n)) throw Fault{line, "BOUNDARY_REGISTER: a cell number wants a number"};
            c.number = static_cast<unsigned>(n);
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
            if (fn == functions().end()) throw Fault{line, "BOUNDARY_REGISTER: cell " + std::to_string(c.number) + ": unknown function " + f};
            c.function = fn->second;
            in.expect(',', "BOUNDARY_REGISTER");
            std::string safe = upper(in.need("a safe value"));
            if (safe != "0" && safe != "1" && safe != "X")
                throw Fault{line, "BOUNDARY_REGISTER: cell " + std::to_string(c.number) + ": safe value " + safe + " is not 0, 1 or X"};
            c.safe = safe[0];
            if (in.take(',')) {
                unsigned long ccell;
                if (!number(in.need("a control cell"), kMaxBoundaryLength, &ccell))
                    throw Fault{line, "BOUNDARY_REGISTER: cell " + std::to_string(c.number) + ": a control cell wants a number"};
                c.controlCell = static_cast<int>(ccell);
                in.expect(',', "BOUNDARY_REGISTER");
                std::string dis = in.need("a disable value");
                if (dis != "0" && dis != "1")
                    throw Fault{line, "BOUNDARY_REGISTER: cell " + std::to_string(c.number) + ": disable value " + dis + " is not 0 or 1"};
                c.disableValue = dis[0];
                in.expect(',', "BOUNDARY_REGISTER");
                c.disableResult = upper(in.need("a disable result"));
            }
            in.expect(')', "BOUNDARY_REGISTER");
            cellLines_[c.number] = line;
            if (cells_.count(c.number)) throw Fault{line, "BOUNDARY_REGISTER: cell " + std::to_string(c.number) + " listed twice"};
            cells_[c.number] = c;
            if (!in.take(',')) break;
        }
        if (!in.atEnd()) throw Fault{in.line(), "BOUNDARY_REGISTER: expected ',', found " + in.next()};
    }

    bool portDeclared(const std::string& port) const {
        size_t paren = port.find('(');
        const Port* p = d_->port(port.substr(0, paren));
        if (!p) return false;
        if (paren == std::string::npos) return !p->isVector();
        unsigned long i;
        if (!p->isVector() || !number(port.substr(paren + 1, port.size() - paren - 2), kMaxVectorElements, &i)) return false;
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
        k = 0;
        for (const RegisterAccess& r : d_->registerAccess)
            for (const std::string& i : r.instructions) {
                unsigned line = accessLines_[k++];
                if (!d_->instruction(i)) throw Fault{line, "REGISTER_ACCESS: no instruction " + i};
            }
        for (const auto& [number, cell] : cells_) {
            unsigned line = cellLines_[number];
            std::string what = "BOUNDARY_REGISTER: cell " + std::to_string(number);
            if (number >= d_->boundaryLength)
                throw Fault{line, what + " is past BOUNDARY_LENGTH " + std::to_string(d_->boundaryLength)};
            if (cell.port != "*" && !portDeclared(cell.port)) throw Fault{line, what + ": no port " + cell.port};
            if (cell.controlCell >= 0) {
                auto control = cells_.find(static_cast<unsigned>(cell.controlCell));
                if (control == cells_.end())
                    throw Fault{line, what + ": control cell " + std::to_string(cell.controlCell) + " does not exist"};
                if (control->second.function != Cell::Function::control &&
                    control->second.function != Cell::Function::controlr)
                    throw Fault{line, what + ": cell " + std::to_string(cell.controlCell) + " is not a control cell"};
            }
        }
        if (cells_.size() != d_->boundaryLength) {
            for (unsigned i = 0; i < d_->boundaryLength; ++i)
                if (!cells_.count(i))
                    throw Fault{boundaryLine_ ? boundaryLine_ : endLine,
                                "BOUNDARY_REGISTER: cell " + std::to_string(i) + " of " + std::to_string(d_->boundaryLength) + " is missing"};
        }
        d_->boundary.reserve(cells_.size());
        for (auto& [number, cell] : cells_) d_->boundary.push_back(std::move(cell));
        if (!d_->defaultPackage.empty() && !d_->packages.empty() && !d_->package(d_->defaultPackage))
            throw Fault{endLine, "PHYSICAL_PIN_MAP names " + d_->defaultPackage + ", which no PIN_MAP_STRING constant is"};
    }

    std::vector<Token> t_;
    size_t at_ = 0;
    Device* d_;
    bool ended_ = false;
    unsigned captureLine_ = 0, boundaryLine_ = 0, endLine_ = 0;
    std::vector<unsigned> opcodeLines_, accessLines_;
    std::map<unsigned, Cell> cells_;
    std::map<unsigned, unsigned> cellLines_;
};

}  // namespace

const Port* Device::port(const std::string& name) const {
    for (const Port& p : ports)
        if (same(p.name, name)) return &p;
    return nullptr;
}

const Instruction* Device::instruction(const std::string& name) const {
    for (const Instruction& i : instructions)
        if (same(i.name, name)) return &i;
    return nullptr;
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
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = {path, 0, std::string("cannot read: ") + std::strerror(errno)};
        return false;
    }
    std::string text;
    char buf[65536];
    while (in.read(buf, sizeof buf) || in.gcount() > 0) {
        text.append(buf, static_cast<size_t>(in.gcount()));
        if (text.size() > kMaxFileBytes) {
            *error = {path, 0, "larger than " + std::to_string(kMaxFileBytes >> 20) + " MiB: not a BSDL file"};
            return false;
        }
    }
    if (in.bad()) {
        *error = {path, 0, std::string("cannot read: ") + std::strerror(errno)};
        return false;
    }
    return read(text, path, device, error);
}

}  // namespace jtag::bsdl
