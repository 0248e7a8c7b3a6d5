#include "file_trans_client/speed_adapt.h"

#include "file_trans_client/file_trans_client_work.h"
#include "log.h"

using namespace brel_lib;

namespace {

// A period ends after this long, this many packets or this much data.
const time_t STAT_PERIOD_SECOND = 4;
const unsigned int STAT_PERIOD_PACKETS = 14;
const unsigned int STAT_PERIOD_BYTES = 0x63fffff;

struct TierRow {
    unsigned int nMinBandWidth;
    SpeedTier tier;
};
// From the fastest down; the first row whose floor B reaches wins.
const TierRow kTiers[] = {
    {0x3200000, {5, 0x500000}},
    {0x500000, {5, 0x100000}},
    {0x100000, {5, 0x40000}},
    {0x40000, {3, 0x10000}},
};
// Below the last floor a slow network gets smaller blocks than a slow disk.
const SpeedTier kSlowNet = {3, 0x4000};
const SpeedTier kSlowLocal = {3, 0x8000};

}  // namespace

SpeedTier ChooseSpeedTier(unsigned int nNetBandWidth, unsigned int nLocalBandWidth)
{
    // Equal rates go to the local side.
    bool bNetDecides = nLocalBandWidth > nNetBandWidth;
    unsigned int nBandWidth = bNetDecides ? nNetBandWidth : nLocalBandWidth;
    for (const TierRow& row : kTiers)
        if (nBandWidth >= row.nMinBandWidth) return row.tier;
    return bNetDecides ? kSlowNet : kSlowLocal;
}

bool AutoAdjustNewReqSizeAndNum(FileTransClient& task, time_t tNow)
{
    if (task.nStatBeginTime > tNow) task.nStatBeginTime = tNow;
    if (task.nStatDealMSecond == 0 || task.nStatPacketNum == 0) return false;  // nothing measured yet
    time_t tStat = tNow - task.nStatBeginTime;
    if (tStat <= STAT_PERIOD_SECOND && task.nStatPacketNum <= STAT_PERIOD_PACKETS &&
        task.nStatDataSize <= STAT_PERIOD_BYTES)
        return false;

    unsigned int nLocalBandWidth =
        (unsigned int)((unsigned long long)task.nStatDealDataSize * 1000ULL / task.nStatDealMSecond);
    unsigned int nNetBandWidth = (unsigned int)(task.lStatSpeedSum / task.nStatPacketNum);
    SpeedTier tier = ChooseSpeedTier(nNetBandWidth, nLocalBandWidth);
    task.nNowAllGetNum = tier.nGetNum;
    task.nNowGetSize = tier.nGetSize;

    Log(LOG_LEVEL_DEBUG,
        "CFileWriteThread::AutoAdjustNewReqSizeAndNum(work id: %u, stat packet: %u, recv data size: %u, stat time: %ds, "
        "net bandwidth: %u, local bandwidth: %u)",
        task.nWorkId, task.nStatPacketNum, task.nStatDataSize, (int)tStat, nNetBandWidth, nLocalBandWidth);

    task.lStatSpeedSum = 0;
    task.nStatDataSize = 0;
    task.nStatPacketNum = 0;
    task.nStatDealMSecond = 0;
    task.nStatDealDataSize = 0;
    task.nStatBeginTime = tNow;
    return true;
}
