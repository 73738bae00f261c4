#include <media/stagefright/foundation/AString.h>
#include <strings.h>

#include <cstring>

namespace android {

bool AString::equalsIgnoreCase(const char* other) const { return strcasecmp(c_str(), other) == 0; }

bool AString::startsWithIgnoreCase(const char* prefix) const {
    return strncasecmp(c_str(), prefix, strlen(prefix)) == 0;
}

}  // namespace android
