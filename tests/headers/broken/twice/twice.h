// Has no include guard.
struct Twice {
    int value;
};
