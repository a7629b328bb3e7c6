// Loses bits without saying so.
#pragma once
inline unsigned char LowByte(int value) {
    return value;
}
