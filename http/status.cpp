// One table, indexed by the code. A code without a text does not compile.
#include "http/status.h"

#include <iterator>

// The texts are what operators' scripts know, odd spellings included.
static constexpr const char* STATUS_TEXTS[] = {
    "Notice the business module to upgrade successfully.",
    "No bussiness modules registration.",
    "The bussiness modules haven't registered.",
    "There are business modules in the upgrading, please wait for a moment.",
    "Communicate with the server failed.",
    "Communicate with the server failed.",
    "Communicate with the server failed.",
    "Out of memory, application memory failure.",
    "The server response message format is wrong.",
    "Suspend, some business modules are upgrading or haven't registered release.",
    "All the bussiness modules are the latest versions.",
    "haven't started to download.",
    "Downloading.",
    "The user cancels the upgrade process",
    "Not enough flash.",
    "Download failed.",
    "Notice failed the business module to upgrade.",
};
static_assert(std::size(STATUS_TEXTS) == UPDATE_NOTIFY_FAIL + 1);

const char* update_status_str(UpdateStatus code) {
    return code < std::size(STATUS_TEXTS) ? STATUS_TEXTS[code] : "Unknown error.";
}

const char* update_status_prefix(UpdateStatus code) {
    return code == UPDATE_NO_MEMORY || code == UPDATE_NO_STORAGE ? "%warning: " : "%notice: ";
}
