// Implements AVFAudio on Linux: formats and buffers of PCM audio in memory. Not Sendable, as they may not be
// on a Mac.

internal import AnalysisSeam
import Foundation

public typealias AVAudioFrameCount = UInt32
public typealias AVAudioChannelCount = UInt32

public enum AVAudioCommonFormat: UInt, Sendable {
    case otherFormat = 0
    case pcmFormatFloat32 = 1
    case pcmFormatFloat64 = 2
    case pcmFormatInt16 = 3
    case pcmFormatInt32 = 4
}

open class AVAudioFormat: NSObject {
    public let commonFormat: AVAudioCommonFormat
    public let sampleRate: Double
    public let channelCount: AVAudioChannelCount
    public let isInterleaved: Bool

    /// Returns nil above two channels (Apple's header).
    public init?(
        commonFormat: AVAudioCommonFormat, sampleRate: Double, channels: AVAudioChannelCount,
        interleaved: Bool
    ) {
        guard commonFormat != .otherFormat, sampleRate > 0, (1...2).contains(channels) else { return nil }
        self.commonFormat = commonFormat
        self.sampleRate = sampleRate
        channelCount = channels
        isInterleaved = interleaved
    }
}

open class AVAudioPCMBuffer: NSObject {
    public let format: AVAudioFormat
    public let frameCapacity: AVAudioFrameCount
    public var frameLength: AVAudioFrameCount = 0

    public let int16ChannelData: UnsafePointer<UnsafeMutablePointer<Int16>>?
    public let floatChannelData: UnsafePointer<UnsafeMutablePointer<Float>>?

    public init?(pcmFormat: AVAudioFormat, frameCapacity: AVAudioFrameCount) {
        format = pcmFormat
        self.frameCapacity = frameCapacity
        int16ChannelData = pcmFormat.commonFormat == .pcmFormatInt16 ? channelData(pcmFormat, frameCapacity) : nil
        floatChannelData =
            pcmFormat.commonFormat == .pcmFormatFloat32 ? channelData(pcmFormat, frameCapacity) : nil
    }

    deinit {
        free(int16ChannelData)
        free(floatChannelData)
    }

    private func free<Sample>(_ channels: UnsafePointer<UnsafeMutablePointer<Sample>>?) {
        guard let channels else { return }
        for run in 0..<runs(of: format) { analysisSeamFreeSamples(channels[run]) }
        channels.deallocate()
    }
}

private func runs(of format: AVAudioFormat) -> Int { format.isInterleaved ? 1 : Int(format.channelCount) }

/// Returns zeroed samples: one block per channel, or a single block if interleaved.
private func channelData<Sample>(_ format: AVAudioFormat, _ frames: AVAudioFrameCount)
    -> UnsafePointer<UnsafeMutablePointer<Sample>>
{
    let count = Int(frames) * (format.isInterleaved ? Int(format.channelCount) : 1)
    let channels = UnsafeMutablePointer<UnsafeMutablePointer<Sample>>.allocate(capacity: runs(of: format))
    for run in 0..<runs(of: format) {
        let samples = analysisSeamAllocateSamples(max(count, 1) * MemoryLayout<Sample>.stride)!
        channels[run] = samples.assumingMemoryBound(to: Sample.self)
    }
    return UnsafePointer(channels)
}
