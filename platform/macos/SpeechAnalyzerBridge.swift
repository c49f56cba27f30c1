// Implements the C functions of SpeechAnalyzerBridge.h with SpeechAnalyzer, SpeechTranscriber,
// AssetInventory and AnalysisContext of macOS 26. The header describes each function. No Swift type
// crosses: objects are passed as unmanaged references, results through C callbacks. Everything beyond
// translation is in AppleSpeechAnalysis.cpp.

import AVFAudio
import CoreMedia
import Foundation
import Speech

// MARK: Conversion

/// Holds a C callback and its context. The header allows using both on any thread.
private struct Callback<Function>: @unchecked Sendable {
    let function: Function
    let context: UnsafeMutableRawPointer
}

private func object<Object: AnyObject>(_ handle: OpaquePointer) -> Object {
    Unmanaged<Object>.fromOpaque(UnsafeRawPointer(handle)).takeUnretainedValue()
}

private func ownedHandle(_ object: some AnyObject) -> OpaquePointer {
    OpaquePointer(Unmanaged.passRetained(object).toOpaque())
}

extension String {
    fileprivate init(_ bridged: SpeechBridgeString) {
        self.init(
            decoding: UnsafeRawBufferPointer(start: bridged.bytes, count: bridged.length), as: UTF8.self)
    }

    fileprivate func withBridged<Result>(_ body: (SpeechBridgeString) -> Result) -> Result {
        var text = self
        return text.withUTF8 { utf8 in
            utf8.withMemoryRebound(to: CChar.self) {
                body(SpeechBridgeString(bytes: $0.baseAddress, length: $0.count))
            }
        }
    }
}

private func withBridged<Result>(
    _ error: any Error, _ body: (UnsafePointer<SpeechBridgeError>) -> Result
) -> Result {
    let bridged = error as NSError
    return bridged.domain.withBridged { domain in
        bridged.localizedDescription.withBridged { description in
            withUnsafePointer(
                to: SpeechBridgeError(
                    domain: domain, code: Int64(bridged.code), localizedDescription: description), body)
        }
    }
}

extension AVAudioFormat {
    fileprivate convenience init?(_ bridged: SpeechBridgeAudioFormat) {
        guard let commonFormat = AVAudioCommonFormat(rawValue: UInt(bridged.commonFormat)) else { return nil }
        self.init(
            commonFormat: commonFormat, sampleRate: bridged.sampleRate, channels: bridged.channelCount,
            interleaved: bridged.interleaved)
    }

    fileprivate var bridged: SpeechBridgeAudioFormat {
        SpeechBridgeAudioFormat(
            commonFormat: UInt32(commonFormat.rawValue), sampleRate: sampleRate, channelCount: channelCount,
            interleaved: isInterleaved)
    }
}

/// Runs an operation that may fail, and calls the completion.
private func run(
    _ completion: @escaping SpeechBridgeFallibleCompletion, _ context: UnsafeMutableRawPointer,
    _ operation: @escaping @Sendable () async throws -> Void
) {
    let callback = Callback(function: completion, context: context)
    Task {
        do {
            try await operation()
            callback.function(callback.context, nil)
        } catch {
            withBridged(error) { callback.function(callback.context, $0) }
        }
    }
}

@_cdecl("speechBridgeRelease")
public func speechBridgeRelease(_ handle: UnsafeRawPointer) {
    Unmanaged<AnyObject>.fromOpaque(handle).release()
}

// MARK: SpeechTranscriber

@_cdecl("speechBridgeIsTranscriberAvailable")
public func speechBridgeIsTranscriberAvailable() -> Bool {
    if #available(macOS 26.0, *) { SpeechTranscriber.isAvailable } else { false }
}

@available(macOS 26.0, *)
@_cdecl("speechBridgeSupportedLocale")
public func speechBridgeSupportedLocale(
    _ equivalentTo: SpeechBridgeString, _ completion: @escaping SpeechBridgeLocaleCompletion,
    _ context: UnsafeMutableRawPointer
) {
    let callback = Callback(function: completion, context: context)
    let wanted = Locale(identifier: String(equivalentTo))
    Task {
        guard let locale = await SpeechTranscriber.supportedLocale(equivalentTo: wanted) else {
            return callback.function(callback.context, nil)
        }
        locale.identifier.withBridged { identifier in
            withUnsafePointer(to: identifier) { callback.function(callback.context, $0) }
        }
    }
}

@available(macOS 26.0, *)
@_cdecl("speechBridgeMakeTranscriber")
public func speechBridgeMakeTranscriber(_ locale: SpeechBridgeString) -> OpaquePointer {
    ownedHandle(
        SpeechTranscriber(locale: Locale(identifier: String(locale)), preset: .progressiveTranscription))
}

private final class ResultReading: Sendable {
    let task: Task<Void, Never>
    init(task: Task<Void, Never>) { self.task = task }
}

@available(macOS 26.0, *)
extension SpeechTranscriber.Result {
    fileprivate func withBridged(_ body: (UnsafePointer<SpeechBridgeResult>) -> Void) {
        String(text.characters).withBridged { text in
            withUnsafePointer(
                to: SpeechBridgeResult(
                    text: text, rangeStart: range.start.seconds, rangeEnd: range.end.seconds,
                    isFinal: isFinal), body)
        }
    }
}

@available(macOS 26.0, *)
@_cdecl("speechBridgeReadResults")
public func speechBridgeReadResults(
    _ transcriber: OpaquePointer, _ onResult: @escaping SpeechBridgeResultCallback,
    _ onEnd: @escaping SpeechBridgeResultsEndCallback, _ context: UnsafeMutableRawPointer
) -> OpaquePointer {
    let result = Callback(function: onResult, context: context)
    let end = Callback(function: onEnd, context: context)
    // Created here and not in the task, which starts later: results that arrive before their reader are lost.
    let start = (object(transcriber) as SpeechTranscriber).results.makeAsyncIterator()
    let task = Task {
        var iterator = start
        do {
            while let next = try await iterator.next() {
                next.withBridged { result.function(result.context, $0) }
            }
            end.function(end.context, SpeechBridgeResultsEnded, nil)
        } catch is CancellationError {
            end.function(end.context, SpeechBridgeResultsCancelled, nil)
        } catch {
            withBridged(error) { end.function(end.context, SpeechBridgeResultsFailed, $0) }
        }
    }
    return ownedHandle(ResultReading(task: task))
}

@_cdecl("speechBridgeCancelResults")
public func speechBridgeCancelResults(_ results: OpaquePointer) {
    (object(results) as ResultReading).task.cancel()
}

// MARK: SpeechAnalyzer

@available(macOS 26.0, *)
private final class Input: Sendable {
    let stream: AsyncStream<AnalyzerInput>
    let continuation: AsyncStream<AnalyzerInput>.Continuation
    init() { (stream, continuation) = AsyncStream<AnalyzerInput>.makeStream() }
}

@available(macOS 26.0, *)
@_cdecl("speechBridgeBestAvailableAudioFormat")
public func speechBridgeBestAvailableAudioFormat(
    _ transcriber: OpaquePointer, _ completion: @escaping SpeechBridgeFormatCompletion,
    _ context: UnsafeMutableRawPointer
) {
    let callback = Callback(function: completion, context: context)
    let transcriber: SpeechTranscriber = object(transcriber)
    Task {
        guard let format = await SpeechAnalyzer.bestAvailableAudioFormat(compatibleWith: [transcriber]) else {
            return callback.function(callback.context, nil)
        }
        withUnsafePointer(to: format.bridged) { callback.function(callback.context, $0) }
    }
}

@available(macOS 26.0, *)
@_cdecl("speechBridgeMakeInput")
public func speechBridgeMakeInput() -> OpaquePointer {
    ownedHandle(Input())
}

@available(macOS 26.0, *)
@_cdecl("speechBridgeYield")
public func speechBridgeYield(_ input: OpaquePointer, _ audio: UnsafePointer<SpeechBridgeAudioBuffer>) -> Bool
{
    let audio = audio.pointee
    guard let format = AVAudioFormat(audio.format),
        let buffer = AVAudioPCMBuffer(pcmFormat: format, frameCapacity: audio.frameLength)
    else { return false }
    buffer.frameLength = audio.frameLength
    let runs = format.isInterleaved ? 1 : Int(format.channelCount)
    let samplesPerRun = Int(audio.frameLength) * (format.isInterleaved ? Int(format.channelCount) : 1)
    func copy<Sample>(to channels: UnsafePointer<UnsafeMutablePointer<Sample>>) {
        let samples = audio.samples.assumingMemoryBound(to: Sample.self)
        for run in 0..<runs {
            channels[run].update(from: samples + run * Int(audio.channelStride), count: samplesPerRun)
        }
    }
    if let channels = buffer.int16ChannelData {
        copy(to: channels)
    } else if let channels = buffer.floatChannelData {
        copy(to: channels)
    } else {
        return false
    }
    (object(input) as Input).continuation.yield(AnalyzerInput(buffer: buffer))
    return true
}

@available(macOS 26.0, *)
@_cdecl("speechBridgeFinishInput")
public func speechBridgeFinishInput(_ input: OpaquePointer) {
    (object(input) as Input).continuation.finish()
}

@available(macOS 26.0, *)
@_cdecl("speechBridgeMakeAnalyzer")
public func speechBridgeMakeAnalyzer(
    _ transcriber: OpaquePointer, _ input: OpaquePointer,
    _ contextualStrings: UnsafePointer<SpeechBridgeString>?, _ count: Int
) -> OpaquePointer {
    let analysisContext = AnalysisContext()
    analysisContext.contextualStrings[.general] =
        UnsafeBufferPointer(start: contextualStrings, count: count).map { String($0) }
    return ownedHandle(
        SpeechAnalyzer(
            inputSequence: (object(input) as Input).stream,
            modules: [object(transcriber) as SpeechTranscriber], analysisContext: analysisContext))
}

@available(macOS 26.0, *)
@_cdecl("speechBridgePrepareToAnalyze")
public func speechBridgePrepareToAnalyze(
    _ analyzer: OpaquePointer, _ format: UnsafePointer<SpeechBridgeAudioFormat>,
    _ completion: @escaping SpeechBridgeFallibleCompletion, _ context: UnsafeMutableRawPointer
) {
    let analyzer: SpeechAnalyzer = object(analyzer)
    let format = format.pointee
    run(completion, context) { try await analyzer.prepareToAnalyze(in: AVAudioFormat(format)) }
}

@available(macOS 26.0, *)
@_cdecl("speechBridgeFinalizeAndFinishThroughEndOfInput")
public func speechBridgeFinalizeAndFinishThroughEndOfInput(
    _ analyzer: OpaquePointer, _ completion: @escaping SpeechBridgeFallibleCompletion,
    _ context: UnsafeMutableRawPointer
) {
    let analyzer: SpeechAnalyzer = object(analyzer)
    run(completion, context) { try await analyzer.finalizeAndFinishThroughEndOfInput() }
}

@available(macOS 26.0, *)
@_cdecl("speechBridgeCancelAndFinishNow")
public func speechBridgeCancelAndFinishNow(
    _ analyzer: OpaquePointer, _ completion: @escaping SpeechBridgeCompletion,
    _ context: UnsafeMutableRawPointer
) {
    let callback = Callback(function: completion, context: context)
    let analyzer: SpeechAnalyzer = object(analyzer)
    Task {
        await analyzer.cancelAndFinishNow()
        callback.function(callback.context)
    }
}

// MARK: AssetInventory

@available(macOS 26.0, *)
@_cdecl("speechBridgeReserveLocale")
public func speechBridgeReserveLocale(
    _ locale: SpeechBridgeString, _ completion: @escaping SpeechBridgeFallibleCompletion,
    _ context: UnsafeMutableRawPointer
) {
    let locale = Locale(identifier: String(locale))
    run(completion, context) { _ = try await AssetInventory.reserve(locale: locale) }
}

@available(macOS 26.0, *)
@_cdecl("speechBridgeReservedLocales")
public func speechBridgeReservedLocales(
    _ completion: @escaping SpeechBridgeLocalesCompletion, _ context: UnsafeMutableRawPointer
) {
    let callback = Callback(function: completion, context: context)
    Task {
        let identifiers = await AssetInventory.reservedLocales.map { Array($0.identifier.utf8CString) }
        let bridged = UnsafeMutableBufferPointer<SpeechBridgeString>.allocate(capacity: identifiers.count)
        defer { bridged.deallocate() }
        // Inner array buffers do not move while the outer array is alive.
        withExtendedLifetime(identifiers) {
            for (index, identifier) in identifiers.enumerated() {
                identifier.withUnsafeBufferPointer {
                    bridged.initializeElement(
                        at: index,
                        to: SpeechBridgeString(bytes: $0.baseAddress, length: identifier.count - 1))
                }
            }
            callback.function(callback.context, bridged.baseAddress, identifiers.count)
        }
    }
}

@available(macOS 26.0, *)
@_cdecl("speechBridgeReleaseLocale")
public func speechBridgeReleaseLocale(
    _ reservedLocale: SpeechBridgeString, _ completion: @escaping SpeechBridgeCompletion,
    _ context: UnsafeMutableRawPointer
) {
    let callback = Callback(function: completion, context: context)
    let locale = Locale(identifier: String(reservedLocale))
    Task {
        _ = await AssetInventory.release(reservedLocale: locale)
        callback.function(callback.context)
    }
}

@available(macOS 26.0, *)
extension AssetInventory.Status {
    /// Maps an unknown status to that of a model that can be installed.
    fileprivate var bridged: SpeechBridgeAssetStatus {
        switch self {
        case .unsupported: SpeechBridgeAssetStatusUnsupported
        case .supported: SpeechBridgeAssetStatusSupported
        case .downloading: SpeechBridgeAssetStatusDownloading
        case .installed: SpeechBridgeAssetStatusInstalled
        @unknown default: SpeechBridgeAssetStatusSupported
        }
    }
}

@available(macOS 26.0, *)
@_cdecl("speechBridgeAssetStatus")
public func speechBridgeAssetStatus(
    _ transcriber: OpaquePointer, _ completion: @escaping SpeechBridgeStatusCompletion,
    _ context: UnsafeMutableRawPointer
) {
    let callback = Callback(function: completion, context: context)
    let transcriber: SpeechTranscriber = object(transcriber)
    Task {
        let status = await AssetInventory.status(forModules: [transcriber])
        callback.function(callback.context, status.bridged)
    }
}

@available(macOS 26.0, *)
@_cdecl("speechBridgeAssetInstallationRequest")
public func speechBridgeAssetInstallationRequest(
    _ transcriber: OpaquePointer, _ completion: @escaping SpeechBridgeInstallationCompletion,
    _ context: UnsafeMutableRawPointer
) {
    let callback = Callback(function: completion, context: context)
    let transcriber: SpeechTranscriber = object(transcriber)
    Task {
        do {
            let request = try await AssetInventory.assetInstallationRequest(supporting: [transcriber])
            callback.function(callback.context, request.map { ownedHandle($0) }, nil)
        } catch {
            withBridged(error) { callback.function(callback.context, nil, $0) }
        }
    }
}

@available(macOS 26.0, *)
@_cdecl("speechBridgeDownloadAndInstall")
public func speechBridgeDownloadAndInstall(
    _ installation: OpaquePointer, _ completion: @escaping SpeechBridgeFallibleCompletion,
    _ context: UnsafeMutableRawPointer
) {
    let request: AssetInstallationRequest = object(installation)
    run(completion, context) { try await request.downloadAndInstall() }
}
