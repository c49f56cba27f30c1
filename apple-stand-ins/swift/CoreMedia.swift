// Implements the times of CoreMedia that speech results carry. Layouts follow Apple's headers.

public struct CMTimeFlags: OptionSet, Sendable {
    public let rawValue: UInt32
    public init(rawValue: UInt32) { self.rawValue = rawValue }
    public static let valid = CMTimeFlags(rawValue: 1)
    public static let positiveInfinity = CMTimeFlags(rawValue: 4)
    public static let negativeInfinity = CMTimeFlags(rawValue: 8)
    public static let indefinite = CMTimeFlags(rawValue: 16)
}

public struct CMTime: Sendable, Hashable {
    public var value: Int64
    public var timescale: Int32
    public var flags: CMTimeFlags
    public var epoch: Int64

    public init(value: Int64, timescale: Int32, flags: CMTimeFlags = .valid, epoch: Int64 = 0) {
        self.value = value
        self.timescale = timescale
        self.flags = flags
        self.epoch = epoch
    }

    /// NaN for invalid and indefinite times, infinite for infinite ones (Apple's documentation of
    /// CMTimeGetSeconds).
    public var seconds: Double {
        if !flags.contains(.valid) || flags.contains(.indefinite) { return .nan }
        if flags.contains(.positiveInfinity) { return .infinity }
        if flags.contains(.negativeInfinity) { return -.infinity }
        return Double(value) / Double(timescale)
    }
}

extension CMTimeFlags: Hashable {}

public struct CMTimeRange: Sendable, Hashable {
    public var start: CMTime
    public var duration: CMTime

    public init(start: CMTime, end: CMTime) {
        self.start = start
        guard start.isNumeric && end.isNumeric else {
            duration = end
            return
        }
        duration = CMTime(value: end.value - start.value, timescale: start.timescale)
    }

    public var end: CMTime {
        guard start.isNumeric else { return start }
        guard duration.isNumeric else { return duration }
        return CMTime(value: start.value + duration.value, timescale: start.timescale)
    }
}

extension CMTime {
    fileprivate var isNumeric: Bool { flags == .valid }
}
