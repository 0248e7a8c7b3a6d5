// Speed adaption: the size and number of packets a work asks for follow the
// narrower of the two rates it measures, the network's and its own handling's.
#pragma once

#include <time.h>

struct FileTransClient;

// The tier of one measured bandwidth pair, without memory of earlier choices.
struct SpeedTier {
    unsigned int nGetNum;   // packets per get
    unsigned int nGetSize;  // bytes per packet
};
SpeedTier ChooseSpeedTier(unsigned int nNetBandWidth, unsigned int nLocalBandWidth);

// At a request: when the statistics period of the work is ripe, picks the tier
// into nNowAllGetNum and nNowGetSize and starts a new period at tNow.
// Returns true if it adapted.
bool AutoAdjustNewReqSizeAndNum(FileTransClient& task, time_t tNow);
