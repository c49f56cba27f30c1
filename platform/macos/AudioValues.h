// Audio formats and buffers, between AVFAudio and the contracts. For Objective-C++ with ARC. Any thread; with
// a pool in place.
#pragma once

#import <AVFAudio/AVFAudio.h>

#include <memory>

#include "platform/AudioBuffer.h"

namespace palaver {

// Nil when the system has no such format; it has none of more than two channels.
AVAudioFormat* toAVAudioFormat(const AudioFormat& format);

AudioFormat toAudioFormat(AVAudioFormat* format);

// A buffer of the system over the samples of ours, which are not copied. Ours is kept until the system lets
// go of its own, which must not be written to. Of `format`, which must lay out the samples as the buffer's
// own does. Nil for a buffer without samples of 16-bit integers or 32-bit floats, or without room for any.
// Raises what the system raises.
AVAudioPCMBuffer* wrap(std::shared_ptr<const PCMBuffer> buffer, AVAudioFormat* format);

// The same over a buffer of the caller's, to be written to; only for as long as that one lives. Its frame
// length is 0, whatever the buffer's.
AVAudioPCMBuffer* borrow(PCMBuffer& buffer, AVAudioFormat* format);

}  // namespace palaver
