// What the interlock tells, as words for the journal and the operator.
#pragma once

#include "GcodeLine.h"
#include "IGuardActions.h"
#include "Interlock.h"

const char* getLevelName(LEVEL_E eLevel);
const char* getTripName(TRIP_E eReason);
const char* getNoticeName(NOTICE_E eNotice);

/** Why a wish came to nothing, as a sentence. */
const char* getWishText(WISH_E eWish);
