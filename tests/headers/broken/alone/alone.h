// Needs a header that it does not include.
#pragma once
inline FILE* Nothing() {
    return nullptr;
}
