// Between the flat settings record of the boundary and the driver's record.
#ifndef QUILLON_PUBLIC_CLIENT_SETTINGS_H
#define QUILLON_PUBLIC_CLIENT_SETTINGS_H

#include "driver/driver_contract.h"
#include "quillon/quillon.h"

namespace NSQuillon2 {

// Rate and buffer size non-zero, and every pair byte 0 or 1.
bool IsSoundRecord(const SClientSettings& flat);

// For opening: the pair vectors end at the highest enabled pair, and twice
// as many monitor records as input pairs are taken.
NSFerrand::CSoundDriverSettings MakeDriverSettings(const SClientSettings& flat);

// Over the settings in force: only the pairs and monitors the driver has
// change, and monitorsValid stays as the driver reported it.
void MergeClientSettings(const SClientSettings& flat, NSFerrand::CSoundDriverSettings& settings);

// The flat record of driver settings; monitorsValid is left 0 on purpose.
void MakeFlatSettings(const NSFerrand::CSoundDriverSettings& settings, SClientSettings& flat);

}  // namespace NSQuillon2

#endif
