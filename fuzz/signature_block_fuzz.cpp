// Any bytes as a signed file, and as a key file: reading never crashes, a block that is
// not there leaves the whole file as content, and a valid ad hoc block is exactly the one
// signing its content would append.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz_check.h"
#include "ostrel/code_signature.h"

using ostrel::fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace ostrel;
    std::string bytes(reinterpret_cast<const char *>(data), size);
    SignatureInfo info = verifySignature(*platform::memoryFile(bytes));
    check(info.contentSize <= size);
    check(info.valid() == info.problem.empty());
    if (info.status == SignatureStatus::notSigned) {
        check(info.contentSize == size && !info.valid());
    }
    if (info.valid() && info.adhoc()) {
        std::string content = bytes.substr(0, info.contentSize);
        check(content + signatureBlock(content, info.identifier, nullptr) == bytes);
    }
    try {
        check(SigningKey::fromText(bytes).team().size() == 10);
    } catch (const CodeSigningError &) {
    }
    return 0;
}
