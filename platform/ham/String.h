// The register-access library's string type: a std::string that also
// converts from a null C string (as an empty string).
#pragma once
#include <string>

class String : public std::string {
  public:
    String() = default;
    String(const char* s) : std::string(s ? s : "") {}
    String(const std::string& s) : std::string(s) {}
    String(std::string&& s) : std::string(std::move(s)) {}
};
