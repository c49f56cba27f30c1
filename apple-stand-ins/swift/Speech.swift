// Implements the Swift half of the Speech module: the members that the helper uses, with the signatures of
// macOS 26. Forwards every question to the functions of AnalysisSeam.h.

@_exported import AVFAudio
internal import AnalysisSeam
@_exported import CoreMedia
import Foundation

// MARK: Questions

private struct Answer: Sendable {
    let text: String?
    let number: Int64
    let format: AnalysisSeamFormat?
    let error: (any Error)?

    init(_ answer: AnalysisSeamAnswer) {
        text = answer.text.map { makeString($0, answer.textLength) }
        number = answer.number
        format = answer.format?.pointee
        error = makeError(answer)
    }
}

private func makeString(_ bytes: UnsafePointer<CChar>, _ length: Int) -> String {
    String(decoding: UnsafeRawBufferPointer(start: bytes, count: length), as: UTF8.self)
}

private func makeError(_ answer: AnalysisSeamAnswer) -> (any Error)? {
    guard let domain = answer.errorDomain.map({ String(cString: $0) }) else { return nil }
    let text = answer.errorText.map { String(cString: $0) } ?? ""
    switch domain {
    case "CancellationError": return CancellationError()
    case SFSpeechError.errorDomain: return SFSpeechError(errorCode: Int(answer.errorCode), text: text)
    default:
        return NSError(
            domain: domain, code: Int(answer.errorCode), userInfo: [NSLocalizedDescriptionKey: text])
    }
}

private final class Question: Sendable {
    let continuation: UnsafeContinuation<Answer, Never>
    init(_ continuation: UnsafeContinuation<Answer, Never>) { self.continuation = continuation }
}

private func ask(_ start: @Sendable (@escaping AnalysisSeamCompletion, UnsafeMutableRawPointer) -> Void) async -> Answer {
    await withUnsafeContinuation { continuation in
        start(
            { context, answer in
                Unmanaged<Question>.fromOpaque(context!).takeRetainedValue().continuation.resume(
                    returning: Answer(answer!.pointee))
            }, Unmanaged.passRetained(Question(continuation)).toOpaque())
    }
}

private func askThrowing(_ start: @Sendable (@escaping AnalysisSeamCompletion, UnsafeMutableRawPointer) -> Void)
    async throws -> Answer
{
    let answer = await ask(start)
    if let error = answer.error { throw error }
    return answer
}

extension String {
    fileprivate func withSeamBytes<Result>(_ body: (UnsafePointer<CChar>, Int) -> Result) -> Result {
        withCString { body($0, utf8.count) }
    }
}

extension AVAudioFormat {
    fileprivate var seam: AnalysisSeamFormat {
        AnalysisSeamFormat(
            commonFormat: UInt32(commonFormat.rawValue), sampleRate: sampleRate, channelCount: channelCount,
            interleaved: isInterleaved)
    }
}

/// Mirrors the framework's error type, which bridges to NSError.
public struct SFSpeechError: CustomNSError {
    public static var errorDomain: String { "SFSpeechErrorDomain" }
    public let errorCode: Int
    let text: String
    public var errorUserInfo: [String: Any] { [NSLocalizedDescriptionKey: text] }
}

// MARK: Modules

@available(macOS 26.0, *)
public protocol SpeechModule: AnyObject, Sendable {}

@available(macOS 26.0, *)
public protocol LocaleDependentSpeechModule: SpeechModule {}

@available(macOS 26.0, *)
public final class SpeechTranscriber: LocaleDependentSpeechModule {
    public struct Preset: Sendable, Hashable {
        private let name: String
        public static let progressiveTranscription = Preset(name: "progressiveTranscription")
    }

    public struct Result: Sendable, Hashable {
        public let range: CMTimeRange
        public let resultsFinalizationTime: CMTime
        public let text: AttributedString
        public let alternatives: [AttributedString]
        let isFinalResult: Bool
        public var isFinal: Bool { isFinalResult }
    }

    public static var isAvailable: Bool { analysisSeamIsAvailable() }

    public static func supportedLocale(equivalentTo locale: Locale) async -> Locale? {
        let answer = await ask { completion, context in
            locale.identifier.withSeamBytes { analysisSeamSupportedLocale($0, $1, completion, context) }
        }
        return answer.text.map { Locale(identifier: $0) }
    }

    public init(locale: Locale, preset: Preset) {
        handle = locale.identifier.withSeamBytes { analysisSeamMakeTranscriber($0, $1) }
    }

    deinit { analysisSeamForget(handle) }

    public var results: some Sendable & AsyncSequence<Result, any Error> { Results(source: source) }

    let handle: Int64
    let source = ResultSource()
}

/// Receives the results of one transcriber.
@available(macOS 26.0, *)
final class ResultSource: @unchecked Sendable {
    typealias Stream = AsyncThrowingStream<SpeechTranscriber.Result, any Error>
    let stream: Stream
    private let continuation: Stream.Continuation
    private let lock = NSLock()
    private var isRead = false

    init() { (stream, continuation) = Stream.makeStream() }

    func beginReading() { lock.withLock { isRead = true } }

    func receive(_ result: AnalysisSeamResult) {
        if analysisSeamLosesUnreadResults() && !lock.withLock({ isRead }) { return }
        continuation.yield(
            SpeechTranscriber.Result(
                range: CMTimeRange(start: time(result.rangeStart), end: time(result.rangeEnd)),
                resultsFinalizationTime: time(result.isFinal ? result.rangeEnd : 0),
                text: AttributedString(makeString(result.text, result.textLength)), alternatives: [],
                isFinalResult: result.isFinal))
    }

    func end(_ error: (any Error)?) { continuation.finish(throwing: error) }
}

/// Converts seconds to a time in nanoseconds.
private func time(_ seconds: Double) -> CMTime {
    if seconds.isNaN { return CMTime(value: 0, timescale: 0, flags: []) }
    let scaled = (seconds * 1e9).rounded()
    guard abs(scaled) < 0x1p62 else {
        return CMTime(
            value: 0, timescale: 0,
            flags: [.valid, scaled > 0 ? .positiveInfinity : .negativeInfinity])
    }
    return CMTime(value: Int64(scaled), timescale: 1_000_000_000)
}

@available(macOS 26.0, *)
struct Results: AsyncSequence, Sendable {
    typealias Element = SpeechTranscriber.Result
    typealias Failure = any Error
    let source: ResultSource

    struct AsyncIterator: AsyncIteratorProtocol {
        var base: ResultSource.Stream.Iterator

        mutating func next() async throws -> SpeechTranscriber.Result? {
            let result = try await base.next()
            if result == nil { try Task.checkCancellation() }
            return result
        }
    }

    func makeAsyncIterator() -> AsyncIterator {
        source.beginReading()
        return AsyncIterator(base: source.stream.makeAsyncIterator())
    }
}

// MARK: Analyzer

@available(macOS 26.0, *)
public struct AnalyzerInput: @unchecked Sendable {
    public let buffer: AVAudioPCMBuffer
    public init(buffer: AVAudioPCMBuffer) { self.buffer = buffer }
}

@available(macOS 26.0, *)
public final class AnalysisContext: @unchecked Sendable {
    public struct ContextualStringsTag: RawRepresentable, Hashable, Sendable {
        public let rawValue: String
        public init(rawValue: String) { self.rawValue = rawValue }
        public static let general = ContextualStringsTag(rawValue: "general")
    }

    public init() {}

    public var contextualStrings: [ContextualStringsTag: [String]] {
        get { lock.withLock { strings } }
        set { lock.withLock { strings = newValue } }
    }

    private let lock = NSLock()
    private var strings: [ContextualStringsTag: [String]] = [:]
}

@available(macOS 26.0, *)
public final actor SpeechAnalyzer {
    public struct Options: Sendable {}

    public init<InputSequence>(
        inputSequence: InputSequence, modules: [any SpeechModule], options: Options? = nil,
        analysisContext: AnalysisContext = .init(),
        volatileRangeChangedHandler: sending ((CMTimeRange, Bool, Bool) -> Void)? = nil
    ) where InputSequence: Sendable, InputSequence: AsyncSequence, InputSequence.Element == AnalyzerInput {
        let transcriber = modules[0] as! SpeechTranscriber
        let phrases = analysisContext.contextualStrings[.general] ?? []
        let handle = makeAnalyzer(transcriber, phrases)
        self.handle = handle
        self.modules = modules
        analysisSeamPumpResults(
            transcriber.handle,
            { context, result, end in
                let source = Unmanaged<ResultSource>.fromOpaque(context!)
                if let result { return source.takeUnretainedValue().receive(result.pointee) }
                source.takeRetainedValue().end(makeError(end!.pointee))
            }, Unmanaged.passRetained(transcriber.source).toOpaque())
        analysing = Task {
            var iterator = inputSequence.makeAsyncIterator()
            while let input = try? await iterator.next() { feed(input.buffer, to: handle) }
            analysisSeamFinishInput(handle)
        }
    }

    deinit { analysisSeamForget(handle) }

    /// Returns nil when the model is missing (Apple's documentation).
    public static func bestAvailableAudioFormat(compatibleWith modules: [any SpeechModule]) async
        -> AVAudioFormat?
    {
        let transcriber = modules[0] as! SpeechTranscriber
        guard let format = await ask({ analysisSeamBestFormat(transcriber.handle, $0, $1) }).format,
            let commonFormat = AVAudioCommonFormat(rawValue: UInt(format.commonFormat))
        else { return nil }
        return AVAudioFormat(
            commonFormat: commonFormat, sampleRate: format.sampleRate, channels: format.channelCount,
            interleaved: format.interleaved)
    }

    public func prepareToAnalyze(in audioFormat: AVAudioFormat?) async throws {
        let format = audioFormat?.seam
        _ = try await askThrowing { completion, context in
            guard var format else { return analysisSeamPrepare(handle, nil, completion, context) }
            analysisSeamPrepare(handle, &format, completion, context)
        }
    }

    public func finalizeAndFinishThroughEndOfInput() async throws {
        await analysing.value
        _ = try await askThrowing { analysisSeamFinish(handle, $0, $1) }
    }

    public func cancelAndFinishNow() async {
        analysing.cancel()
        _ = await ask { analysisSeamCancel(handle, $0, $1) }
    }

    private let handle: Int64
    private let modules: [any SpeechModule]
    private let analysing: Task<Void, Never>
}

@available(macOS 26.0, *)
private func makeAnalyzer(_ transcriber: SpeechTranscriber, _ phrases: [String]) -> Int64 {
    let bytes = phrases.map { Array($0.utf8CString) }
    let lengths = phrases.map { $0.utf8.count }
    // Inner array buffers do not move while the outer array is alive.
    return withExtendedLifetime(bytes) {
        var pointers = bytes.map { array in array.withUnsafeBufferPointer { $0.baseAddress } }
        return analysisSeamMakeAnalyzer(transcriber.handle, &pointers, lengths, phrases.count)
    }
}

/// Passes the buffer on. Samples other than 16-bit integers end the process (unverified: public report).
@available(macOS 26.0, *)
private func feed(_ buffer: AVAudioPCMBuffer, to analyzer: Int64) {
    guard let channels = buffer.int16ChannelData else {
        fatalError("Audio sample data must be 16-bit signed integers")
    }
    var format = buffer.format.seam
    let runs = format.interleaved ? 1 : Int(format.channelCount)
    let pointers = (0..<runs).map { UnsafeRawPointer?(channels[$0]) }
    withExtendedLifetime(buffer) { analysisSeamYield(analyzer, &format, pointers, buffer.frameLength) }
}

// MARK: Assets

@available(macOS 26.0, *)
public final class AssetInventory: Sendable {
    public enum Status: Int64, Comparable, Hashable, Sendable {
        case unsupported
        case supported
        case downloading
        case installed

        public static func < (a: Status, b: Status) -> Bool { a.rawValue < b.rawValue }
    }

    /// Returns false when the locale was reserved already (Apple's documentation).
    public static func reserve(locale: Locale) async throws -> Bool {
        let answer = try await askThrowing { completion, context in
            locale.identifier.withSeamBytes { analysisSeamReserve($0, $1, completion, context) }
        }
        return answer.number != 0
    }

    public static var reservedLocales: [Locale] {
        get async {
            let answer = await ask { analysisSeamReservedLocales($0, $1) }
            return (answer.text ?? "").split(separator: "\n").map { Locale(identifier: String($0)) }
        }
    }

    public static func release(reservedLocale: Locale) async -> Bool {
        let answer = await ask { completion, context in
            reservedLocale.identifier.withSeamBytes { analysisSeamRelease($0, $1, completion, context) }
        }
        return answer.number != 0
    }

    public static func status(forModules modules: [any SpeechModule]) async -> Status {
        let transcriber = modules[0] as! SpeechTranscriber
        let answer = await ask { analysisSeamStatus(transcriber.handle, $0, $1) }
        return Status(rawValue: answer.number) ?? .unsupported
    }

    public static func assetInstallationRequest(supporting modules: [any SpeechModule]) async throws
        -> AssetInstallationRequest?
    {
        let transcriber = modules[0] as! SpeechTranscriber
        let answer = try await askThrowing { analysisSeamInstallationRequest(transcriber.handle, $0, $1) }
        return answer.number == 0 ? nil : AssetInstallationRequest(handle: answer.number)
    }
}

@available(macOS 26.0, *)
public final class AssetInstallationRequest: NSObject, Sendable {
    public func downloadAndInstall() async throws {
        _ = try await askThrowing { analysisSeamDownload(handle, $0, $1) }
    }

    private let handle: Int64
    init(handle: Int64) { self.handle = handle }
    deinit { analysisSeamForget(handle) }
}
