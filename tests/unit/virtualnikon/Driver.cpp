#include "Driver.h"

const Driver& driver()
{
    static const Driver kDriver(VIRTUAL_NIKON_LIBRARY);
    return kDriver;
}
