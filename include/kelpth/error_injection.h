// Commands N and N5 put one value of the parameter file at a time into the MODE SELECT
// parameter list of the vendor error-injection page, by the field table of its form.
#pragma once

#include <cstdint>

#include "layouts/error_injection_layouts.h"

// Checks value line valueNo (from kellayouts::kFirstPageValue to the layout's last; its
// line end is cut) against its field's form and ORs it into list. The first field also
// clears the list and writes the header and page head. False for a bad value, with
// nothing reported.
bool packInjectionValue(const kellayouts::InjectionLayout &layout, int valueNo, char *text, uint8_t *list);
