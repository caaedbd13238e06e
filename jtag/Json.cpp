#include "jtag/Json.h"

namespace jtag {

std::string jsonText(const Json& value) { return value.dump(-1, ' ', false, Json::error_handler_t::replace); }

}  // namespace jtag
