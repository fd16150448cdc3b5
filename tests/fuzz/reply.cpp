// A reply's document: parsed, matched with the registered apps, printed.
#include <cstddef>
#include <cstdint>

#include "http/check_version.h"
#include "http/version_reply.h"
#include "registry/app_registry.h"
#include "tests/fakes/fakes.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    for (const char* name : {"a", "alpha"}) {
        if (reg_app_add(1, name, "1.0", 0) != REG_OK) __builtin_trap();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    OwnedCommBuf body;
    (void)comm_buf_append(&body, data, static_cast<int32_t>(size));
    const XmlDoc document = comm_to_buf(&body);
    if (document == nullptr) return 0;
    output_check(document.get(), version_xmldoc_parse_app(document.get()));
    fakes::Terminal();
    return 0;
}
