// The whole CoreUtils interface.
#pragma once

#include "KALDO/CAppleUtils.h"
#include "KALDO/CCallRecords.h"
#include "KALDO/CDbUtils.h"
#include "KALDO/CErrorInfo.h"
#include "KALDO/CFileUtils.h"
#include "KALDO/CNetworkUtils.h"
#include "KALDO/CProcessUtils.h"
#include "KALDO/CSoftwareVersion.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/Failpoints.h"
#include "KALDO/MachineRoot.h"
#include "KALDO/Result.h"
#include "KALDO/typeProperty.h"
