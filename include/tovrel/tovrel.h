// Tovrel: the library's whole exported surface, in one header.
#ifndef TOVREL_TOVREL_H
#define TOVREL_TOVREL_H

#include "tovrel/export.h"
#include "tovrel/IDataStream.h"
#include "tovrel/IDataStreamSet.h"
#include "tovrel/MultiProcessMemory.h"
#include "tovrel/MultiProcessTimeStamp.h"
#include "tovrel/TimeStampValue.h"

#endif
