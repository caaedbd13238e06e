#include "jtag/Svf.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace jtag {

namespace {

constexpr const char* kParams[] = {"TDI", "TDO", "MASK", "SMASK"};
enum Param { tdiParam, tdoParam, maskParam, smaskParam };

// The most TCK cycles one RUNTEST may count: more than a day at any rate
// these pins reach.
constexpr double kMaxRunCycles = 1e12;

bool isWordChar(int c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' || c == '+' ||
           c == '-' || c == '_';
}
bool isHexDigit(int c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool isBlank(int c) { return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v'; }

std::string describe(int c) {
    if (c > ' ' && c < 0x7f) return std::string("'") + static_cast<char>(c) + "'";
    char s[16];
    std::snprintf(s, sizeof s, "byte 0x%02x", c & 0xff);
    return s;
}

bool stateNamed(const std::string& word, TapState* out) {
    for (int i = 0; i < 16; ++i)
        if (word == svfStateName(static_cast<TapState>(i))) {
            *out = static_cast<TapState>(i);
            return true;
        }
    return false;
}

}  // namespace

int SvfReader::get() {
    int c = in_.get();
    if (in_.offset() > bound_) {
        syntax(startLine_, "no ';' within the " + std::to_string(maxStatementBytes_) +
                               " bytes a statement may take from its start");
    }
    return c;
}

SvfReader::Token SvfReader::token() {
    for (;;) {
        int c = get();
        tokenLine_ = line_;
        switch (c) {
            case -1: return Token::end;
            case '\n': ++line_; continue;
            case '!': skipLine(); continue;
            case '/':
                if (in_.peek() == '/') {
                    skipLine();
                    continue;
                }
                break;
            default: break;
        }
        if (isBlank(c)) continue;
        if (starting_ && c != -1) {
            starting_ = false;
            bound_ = in_.offset() - 1 + maxStatementBytes_;
            startLine_ = tokenLine_;
        }
        if (c == '(') return Token::open;
        if (c == ')') return Token::close;
        if (c == ';') return Token::semicolon;
        if (!isWordChar(c)) syntax(tokenLine_, "unexpected character " + describe(c));
        word_.assign(1, static_cast<char>(std::toupper(c)));
        while (isWordChar(in_.peek())) word_ += static_cast<char>(std::toupper(get()));
        return Token::word;
    }
}

void SvfReader::skipLine() {
    int c;
    while ((c = get()) != -1 && c != '\n') {
    }
    if (c == '\n') ++line_;
}

void SvfReader::syntax(uint64_t line, const std::string& what) const {
    throw FormatError(FormatError::syntax, Place{false, line}, keyword_.empty() ? what : keyword_ + ": " + what);
}

void SvfReader::unexpected(Token t, const std::string& expected) const {
    const char* found[] = {nullptr, "'('", "')'", "';'", "the end of the file"};
    syntax(tokenLine_, "expected " + expected + ", found " + (t == Token::word ? word_ : found[static_cast<int>(t)]));
}

void SvfReader::expectWord(const std::string& expected) {
    Token t = token();
    if (t != Token::word || word_ != expected) unexpected(t, expected);
}

void SvfReader::expectSemicolon() {
    Token t = token();
    if (t != Token::semicolon) unexpected(t, "';'");
}

bool SvfReader::isNumber() const { return (word_[0] >= '0' && word_[0] <= '9') || word_[0] == '.'; }

// The current word as a real number: digits, an optional fraction and an
// optional exponent ("1", "1.5", "1E-3", "2.5E+06").
double SvfReader::real(const std::string& what) {
    char* end = nullptr;
    double v = isNumber() ? std::strtod(word_.c_str(), &end) : 0;
    if (!end || *end || !std::isfinite(v)) syntax(tokenLine_, "expected " + what + " (a number), found " + word_);
    return v;
}

TapState SvfReader::stateWord(const std::string& what) {
    Token t = token();
    TapState s;
    if (t != Token::word || !stateNamed(word_, &s)) unexpected(t, what);
    return s;
}

TapState SvfReader::stableState(const std::string& what) {
    TapState s = stateWord(what);
    if (!isStable(s)) syntax(tokenLine_, word_ + " is not a stable state (RESET, IDLE, DRPAUSE, IRPAUSE)");
    return s;
}

// The hex digits after '(' up to ')', as a value of `bits` bits.
void SvfReader::hex(size_t bits, BitVector* out, const char* name) {
    uint64_t open = tokenLine_;
    digits_.clear();
    for (;;) {
        int c = get();
        if (c == ')') break;
        if (isHexDigit(c)) {
            digits_ += static_cast<char>(c);
        } else if (c == '\n') {
            ++line_;
        } else if (c == -1) {
            syntax(line_, std::string("expected ')' to close ") + name + ", found the end of the file");
        } else if (c == '!' || (c == '/' && in_.peek() == '/')) {
            skipLine();
        } else if (!isBlank(c)) {
            syntax(line_, std::string("expected a hex digit or ')' in ") + name + ", found " + describe(c));
        }
    }
    if (digits_.empty()) syntax(open, std::string(name) + " () holds no hex digits");
    if (!BitVector::fromHex(digits_, bits, out)) {
        std::string shown = digits_.size() > 16 ? digits_.substr(0, 16) + "..." : digits_;
        syntax(open, std::string(name) + " (" + shown + ") is wider than the length of " + std::to_string(bits) +
                         " bits");
    }
}

// "length [TDI (..)] [TDO (..)] [MASK (..)] [SMASK (..)];" into p, with
// what carries over from the statement before.
void SvfReader::pattern(Pattern* p) {
    Token t = token();
    bool digits = t == Token::word;
    for (size_t i = 0; digits && i < word_.size(); ++i) digits = word_[i] >= '0' && word_[i] <= '9';
    if (!digits) unexpected(t, "a length in bits (a decimal number)");
    if (word_.size() > 12 || std::strtoull(word_.c_str(), nullptr, 10) > maxBits_)
        syntax(tokenLine_, "a length of " + word_ + " bits is more than the " + std::to_string(maxBits_) + " this reader takes");
    size_t length = std::strtoull(word_.c_str(), nullptr, 10);
    bool given[4] = {};
    while ((t = token()) != Token::semicolon) {
        int k = 0;
        while (t == Token::word && k < 4 && word_ != kParams[k]) ++k;
        if (t != Token::word || k == 4) unexpected(t, "TDI, TDO, MASK, SMASK or ';'");
        if (given[k]) syntax(tokenLine_, word_ + " given twice");
        t = token();
        if (t != Token::open) unexpected(t, std::string("'(' after ") + kParams[k]);
        hex(length, &given_[k], kParams[k]);
        given[k] = true;
    }
    bool same = length == p->length;
    if (given[tdiParam]) {
        std::swap(p->tdi, given_[tdiParam]);
    } else if (!same) {
        if (length > 0)
            syntax(statementLine_, "TDI is required: the length changed from " + std::to_string(p->length) + " to " +
                                       std::to_string(length) + " bits");
        p->tdi.clear();
    }
    if (given[maskParam])
        std::swap(p->mask, given_[maskParam]);
    else if (!same)
        p->mask.assign(length, true);
    if (given[smaskParam])
        std::swap(p->smask, given_[smaskParam]);
    else if (!same)
        p->smask.assign(length, true);
    p->hasTdo = given[tdoParam];
    if (p->hasTdo) std::swap(p->tdo, given_[tdoParam]);
    p->length = length;
}

void SvfReader::scan(Action* a, bool ir) {
    Pattern& s = ir ? sir_ : sdr_;
    pattern(&s);
    const Pattern* pieces[] = {ir ? &hir_ : &hdr_, &s, ir ? &tir_ : &tdr_};
    size_t total = pieces[0]->length + s.length + pieces[2]->length;
    if (total > maxBits_)
        syntax(statementLine_, "with header and trailer the scan has " + std::to_string(total) +
                                   " bits, more than the " + std::to_string(maxBits_) + " this reader takes");
    a->kind = Action::scan;
    a->place = Place{false, statementLine_};
    a->statement = ir ? "SIR" : "SDR";
    a->ir = ir;
    a->check = s.hasTdo;
    a->tdi.clear();
    a->smask.clear();
    a->tdo.clear();
    a->mask.clear();
    for (const Pattern* p : pieces) {
        a->tdi.append(p->tdi);
        a->smask.append(p->smask);
        if (!a->check) continue;
        if (p->hasTdo) {
            a->tdo.append(p->tdo);
            a->mask.append(p->mask);
        } else {
            a->tdo.resize(a->tdo.size() + p->length);
            a->mask.resize(a->mask.size() + p->length);
        }
    }
    a->end = ir ? endIr_ : endDr_;
    a->retries = 0;
    a->waitUs = 0;
    chain_ = a->end;
}

// "STATE [path states] stable_state;"
void SvfReader::state(Action* a) {
    a->path.clear();
    TapState at = chain_;
    uint64_t badLine = 0;
    std::string bad;
    Token t;
    while ((t = token()) != Token::semicolon) {
        TapState s;
        if (t != Token::word || !stateNamed(word_, &s)) unexpected(t, "a state name or ';'");
        if (bad.empty() && s != nextState(at, false) && s != nextState(at, true)) {
            bad = word_ + " does not follow " + svfStateName(at) + " in one TCK cycle";
            badLine = tokenLine_;
        }
        at = s;
        a->path.push_back(s);
    }
    if (a->path.empty()) unexpected(t, "a state name");
    if (!isStable(at))
        syntax(tokenLine_, std::string("the last state, ") + svfStateName(at) +
                               ", is not a stable state (RESET, IDLE, DRPAUSE, IRPAUSE)");
    a->stepwise = a->path.size() > 1;
    if (a->stepwise && !bad.empty()) syntax(badLine, bad);
    a->kind = Action::state;
    a->place = Place{false, statementLine_};
    a->statement = "STATE";
    chain_ = at;
}

// "RUNTEST [run_state] run_count TCK|SCK [min_time SEC [MAXIMUM max_time
// SEC]] [ENDSTATE end_state];" or "RUNTEST [run_state] min_time SEC
// [MAXIMUM max_time SEC] [ENDSTATE end_state];"
void SvfReader::runTest(Action* a) {
    Token t = token();
    TapState run = runState_, end = runEnd_;
    TapState named;
    if (t == Token::word && stateNamed(word_, &named)) {
        if (!isStable(named)) syntax(tokenLine_, word_ + " is not a stable state (RESET, IDLE, DRPAUSE, IRPAUSE)");
        run = end = named;
        t = token();
    }
    if (t != Token::word || !isNumber()) unexpected(t, "a run count or a minimum time");
    double first = real("a run count or a minimum time");
    double cycles = 0, minSeconds = 0, maxSeconds = 0;
    bool sck = false;
    uint64_t countLine = tokenLine_;
    t = token();
    if (t == Token::word && (word_ == "TCK" || word_ == "SCK")) {
        sck = word_ == "SCK";
        if (first != std::floor(first)) syntax(countLine, "the run count is not a whole number of cycles");
        if (!sck && first > kMaxRunCycles) {
            char what[128];
            std::snprintf(what, sizeof what, "RUNTEST: a run count of %g TCK cycles is more than the %g this player clocks",
                          first, kMaxRunCycles);
            throw FormatError(FormatError::unsupported, Place{false, countLine}, what);
        }
        cycles = first;
        t = token();
        if (t == Token::word && isNumber()) {
            minSeconds = real("a minimum time");
            expectWord("SEC");
            t = token();
        }
    } else if (t == Token::word && word_ == "SEC") {
        minSeconds = first;
        t = token();
    } else {
        unexpected(t, "TCK, SCK or SEC");
    }
    if (t == Token::word && word_ == "MAXIMUM") {
        t = token();
        if (t != Token::word || !isNumber()) unexpected(t, "the maximum time");
        maxSeconds = real("the maximum time");
        if (maxSeconds < minSeconds) syntax(tokenLine_, "the maximum time is less than the minimum time");
        expectWord("SEC");
        t = token();
    }
    if (t == Token::word && word_ == "ENDSTATE") {
        end = stableState("an end state");
        t = token();
    }
    if (t != Token::semicolon) unexpected(t, "';'");
    if (sck) {
        if (minSeconds == 0)
            throw FormatError(FormatError::unsupported, Place{false, statementLine_},
                              "RUNTEST: there is no system clock here to count SCK cycles by; give a minimum time "
                              "(min_time SEC) with them");
        cycles = 0;  // the time is what counts
    }
    runState_ = run;
    runEnd_ = end;
    chain_ = end;
    a->kind = Action::runTest;
    a->place = Place{false, statementLine_};
    a->statement = "RUNTEST";
    a->runState = run;
    a->end = end;
    a->cycles = static_cast<uint64_t>(cycles);
    a->minSeconds = minSeconds;
    a->maxSeconds = maxSeconds;
}

bool SvfReader::next(Action* a) {
    for (;;) {
        keyword_.clear();
        starting_ = true;
        bound_ = kNoBound;
        Token t = token();
        if (t == Token::end) {
            if (statements_ == 0)
                syntax(tokenLine_, "the file holds no statement (it is empty, or only white space and comments)");
            return false;
        }
        if (t != Token::word) unexpected(t, "a statement");
        statementLine_ = tokenLine_;
        keyword_ = word_;
        ++statements_;
        const std::string& k = keyword_;
        if (k == "SDR" || k == "SIR") {
            scan(a, k == "SIR");
            return true;
        }
        if (k == "HDR" || k == "HIR" || k == "TDR" || k == "TIR") {
            pattern(k == "HDR" ? &hdr_ : k == "HIR" ? &hir_ : k == "TDR" ? &tdr_ : &tir_);
            continue;
        }
        if (k == "ENDDR" || k == "ENDIR") {
            (k == "ENDDR" ? endDr_ : endIr_) = stableState("a stable state");
            expectSemicolon();
            continue;
        }
        if (k == "STATE") {
            state(a);
            return true;
        }
        if (k == "RUNTEST") {
            runTest(a);
            return true;
        }
        if (k == "FREQUENCY") {
            a->hz = 0;
            t = token();
            if (t != Token::semicolon) {
                if (t != Token::word || !isNumber()) unexpected(t, "a frequency or ';'");
                a->hz = real("a frequency");
                if (a->hz <= 0) syntax(tokenLine_, "the frequency is not more than 0 Hz");
                expectWord("HZ");
                expectSemicolon();
            }
            a->kind = Action::frequency;
            a->place = Place{false, statementLine_};
            a->statement = "FREQUENCY";
            return true;
        }
        if (k == "TRST") {
            t = token();
            if (t != Token::word || (word_ != "ON" && word_ != "OFF" && word_ != "Z" && word_ != "ABSENT"))
                unexpected(t, "ON, OFF, Z or ABSENT");
            std::string mode = word_;
            expectSemicolon();
            if (mode == "ON" || mode == "Z")
                throw FormatError(FormatError::unsupported, Place{false, statementLine_},
                                  "TRST " + mode + ": there is no TRST pin here (TRST OFF and ABSENT are accepted)");
            continue;
        }
        if (k == "PIO" || k == "PIOMAP")
            throw FormatError(FormatError::unsupported, Place{false, statementLine_},
                              k + ": parallel test vectors are not supported: there are no parallel test pins here");
        std::string unknown = "unknown statement " + k;
        keyword_.clear();
        syntax(statementLine_, unknown);
    }
}

}  // namespace jtag
