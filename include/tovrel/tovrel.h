// Tovrel: the library's whole exported surface, in one header.
#ifndef TOVREL_TOVREL_H
#define TOVREL_TOVREL_H

#include "tovrel/export.h"
#include "tovrel/EffectCacheSystem.h"
#include "tovrel/FilePackage.h"
#include "tovrel/IDataStream.h"
#include "tovrel/IDataStreamSet.h"
#include "tovrel/MultiProcessMemory.h"
#include "tovrel/MultiProcessTimeStamp.h"
#include "tovrel/PagedFilePackageConfig.h"
#include "tovrel/TimeStampValue.h"
#include "tovrel/VertexNormalsControl.h"
#include "tovrel/tovrel_c.h"

#endif
