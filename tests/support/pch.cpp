// Holds the precompiled header that the tests share.
