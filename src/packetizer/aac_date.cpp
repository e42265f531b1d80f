#include "packetizer/aac_state.h"

void aout_DateInit(audio_date_t* d, uint32_t rate) {
    d->i_rate = rate;
    d->i_remainder = 0;
}

void aout_DateSet(audio_date_t* d, int64_t date) {
    d->date = date;
    d->i_remainder = 0;
}

int64_t aout_DateGet(const audio_date_t* d) {
    return d->date;
}

void aout_DateMove(audio_date_t* d, int64_t delta) {
    d->date += delta;
}

int64_t aout_DateIncrement(audio_date_t* d, uint32_t samples) {
    if (d->i_rate == 0)
        return d->date;
    const uint64_t us = uint64_t(samples) * 1000000u;
    d->date += int64_t(us / d->i_rate);
    // The remainder stays below the rate, so the sum below stays below twice the rate.
    d->i_remainder += uint32_t(us % d->i_rate);
    if (d->i_remainder >= d->i_rate) {
        d->date += 1;
        d->i_remainder -= d->i_rate;
    }
    return d->date;
}
