// The codes of the helper's error texts, most specific first.

/** @type {ReadonlyArray<readonly [string, RegExp]>} */
export const errorCodes = [
  ['invalid_command', /^Invalid JSON command: /],
  ['missing_key', / requires sessionId/],
  ['unsupported_command', /^Unsupported command type: /],
  ['audio_before_start', /^Audio received before session\.start$/],
  ['invalid_base64', /^(SpeechAnalyzer input failed: )?pcmBase64 is not valid Base64$/],
  ['odd_byte_count', /^(SpeechAnalyzer input failed: )?PCM16 payload must contain an even number of bytes$/],
  ['audio_format', /^(SpeechAnalyzer input failed: )?(Could not create the 16 kHz PCM audio format|No SpeechAnalyzer-compatible audio format is available)$/],
  ['audio_buffer', /^(SpeechAnalyzer input failed: )?Could not allocate an audio buffer$/],
  ['permission_denied', /^Speech Recognition permission is not authorized$/],
  ['unsupported_locale', /^(Unsupported recognition locale: |SpeechAnalyzer input failed: Unsupported SpeechAnalyzer locale: |SpeechAnalyzer does not support )/],
  ['model_not_installed', /^(The on-device recognition model for .* is not installed$|SpeechAnalyzer input failed: SpeechAnalyzer model is not installed)/],
  ['dictation_disabled', /^macOS Dictation is disabled\./],
  ['recognition_failed', /^(Speech recognition failed: |SpeechAnalyzer result stream failed: )/],
  ['audio_conversion', /^SpeechAnalyzer input failed: .*ConversionError/],
  ['analyzer_failed', /^SpeechAnalyzer input failed: /],
];
