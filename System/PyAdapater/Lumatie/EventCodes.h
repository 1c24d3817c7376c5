// The numbers that hosts and module exchange; the wrapper is generated from them, too.
#pragma once

// Camera makers, as Lumatie::m_nVendor holds them.
enum TetherVendor : int {
    VENDOR_NONE = 0,
    VENDOR_NIKON = 1,
    VENDOR_CANON = 2,
};

// Event type codes: the first argument of every call, and the first one of SetValue.
enum TetherType : int {
    TETHER_GENERAL = 0,
    TETHER_EXPOSUREMODE = 1,
    TETHER_EXPOSUREMODE_LIST = 2,
    TETHER_SHUTTERSPEED = 3,
    TETHER_SHUTTERSPEED_LIST = 4,
    TETHER_APERTURE = 5,
    TETHER_APERTURE_LIST = 6,
    TETHER_ISO = 7,
    TETHER_ISO_LIST = 8,
    TETHER_WB = 9,
    TETHER_WB_LIST = 10,
    TETHER_COLORTEMP = 11,
    TETHER_COLORTEMP_LIST = 12,
    TETHER_IMAGEQUALITY = 13,
    TETHER_IMAGEQUALITY_LIST = 14,
};
