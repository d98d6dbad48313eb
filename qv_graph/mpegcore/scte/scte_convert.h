// SCTE-35 splice information into SCTE-104 operations, with presentation times turned
// into pre-roll times relative to the picture being output; and the reverse for splice
// requests.
#pragma once

#include "scte104.h"
#include "scte35.h"
#include "scte35_descriptors.h"

#include <memory>

namespace mpegcore {

// Pre-roll in ms of a 90 kHz time t seen at now: truncated when t is ahead, rounded when
// t is behind (taken as a wrap of the 33-bit clock). Stored in 16 bits.
uint16_t scte35_pts_to_pre_roll(long nowPts, uint64_t pts);

// One message for the section, or empty when there is nothing to send (splice_null,
// bandwidth_reservation, schedule, private, unparsed commands).
std::shared_ptr<scte104_multiple_operation_message> to_scte104(long nowPts, double fps,
                                                               const splice_info_section& section);

// Empty for component splices.
std::shared_ptr<scte104_splice_request_data> scte35_si_to_scte104_srd(long nowPts, const splice_insert_t& si);
std::shared_ptr<scte104_time_signal_request_data> scte35_time_signal_to_scte104_time_signal(long nowPts,
                                                                                            const splice_time_t& t);
std::shared_ptr<scte104_insert_avail_descriptor_request_data>
scte35_avail_desc_to_scte104_avail_desc(const avail_descriptor& d);
std::shared_ptr<scte104_insert_DTMF_descriptor_request_data>
scte35_dtmf_desc_to_scte104_dtmf_desc(const scte35_dtmf_descriptor& d);
std::shared_ptr<scte104_insert_segmentation_descriptor_request_data>
scte35_seg_desc_to_scte104_seg_desc(double fps, const scte35_segmentation_descriptor& d);
std::shared_ptr<scte104_insert_time_descriptor> scte35_time_desc_to_scte104_time_desc(const scte35_time_descriptor& d);

// Pre-roll snapped to whole frames, in 90 kHz ticks.
long pre_roll_time_to_pts(unsigned short preRollMs, double fps);

// A splice_insert section for a splice request, its splice time nowPts + pre-roll (on
// the 33-bit clock). Empty for the reserved and unknown request types.
std::shared_ptr<splice_info_section> scte104_srd_to_scte35_si(long nowPts, double fps,
                                                              std::shared_ptr<scte104_splice_request_data> srd);

} // namespace mpegcore
