// Signed files for tests: copies of a program or plain bytes with a signature block.
#pragma once

#include <stdexcept>
#include <string>

#include "ostrel/code_signature.h"
#include "support/temp_dir.h"

namespace ostrel::test {

// `content` signed as `identifier` with `key`, or ad hoc when it is null.
inline std::string signedBytes(const std::string &content, const std::string &identifier,
                               const SigningKey *key) {
    return content + signatureBlock(content, identifier, key);
}

// Writes `bytes` to the new file `path` with mode 0755.
inline void writeExecutable(const std::string &path, const std::string &bytes) {
    if (platform::realFileAccess().createExclusive(path, bytes, 0755) != 0) {
        throw std::runtime_error("cannot write " + path);
    }
}

}  // namespace ostrel::test
