// Tovrel: the library's whole exported surface, in one header.
#ifndef TOVREL_TOVREL_H
#define TOVREL_TOVREL_H

#include "tovrel/export.h"
#include "tovrel/IDataStream.h"
#include "tovrel/IDataStreamSet.h"

#endif
