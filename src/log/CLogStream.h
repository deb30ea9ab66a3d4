// A stream-style logger that writes 8-bit text lines into a shared, numbered log file.
//
// A caller appends values one by one with `<<`; each value is formatted with a printf-style format and added
// to the collected text. `Flush` writes the collected text as one line,
//
//     "[MM/DD hh:mm:ss] [pid     ] [tid     ]: text\r\n"
//
// (process and thread ids in lower-case hexadecimal, right-aligned in eight places), into
// "<folder>/JNIWrapper0000.log", which all `CLogStream` objects of the process share and which other
// processes may write too. Once that file holds 10 MiB, lines go to JNIWrapper0001.log, which then grows
// without limit. The plug-in's own operations log through JNIWrapperLog; this class is offered beside it.
//
// Formats. Every append has a default format (listed at each operator). A custom format set with `SetFormat`
// replaces the default of every append, but only when it fits the value: it must hold exactly one conversion
// of the value's kind (integers: d i u x X o c; floating point: f F e E g G a A; text: s), with optional
// flags (- + space # 0, only where printf defines them for that conversion), width and precision of at most
// `kMaxFieldWidth` (no '*'), and any length modifier (hh h l ll L q j z t I I32 I64). The length modifier
// written in the format is replaced by the one of the value actually passed, so a format can never make
// printf read an argument of the wrong size. "%%" stands for a literal percent sign. Any other format is
// ignored and the append uses its default format; text supplied by callers is never used as a format.
//
// Integer conversions: d and i print the value as signed, u x X o as unsigned, both at the width of the
// appended type (a short -1 with "%x" gives "ffff", an int -1 gives "ffffffff"); c prints the low byte.
// The UTF-16 appends convert their text to UTF-8 first and then format it like 8-bit text. A null pointer
// appends the text "(null)" (formatted like any other text).
//
// Chaining. Every append returns the stream set with `Chain` when there is one, resetting it to null, so the
// next append of an expression goes to that stream; otherwise it returns this stream.
//
// Threads. One `CLogStream` object is not to be used by several threads at once; separate objects may flush
// concurrently from any threads and processes.
#pragma once

#include <cstdint>
#include <string>

class CLogStream {
public:
    // A log file of this size or more is not written again: the next file number is used instead.
    static constexpr int64_t kRotationSize = 10485760;
    // The level of a new stream.
    static constexpr int32_t kDefaultLevel = 3;
    // Widths and precisions of custom formats above this are refused (the default format is used), so that
    // no format can ask for an enormous field.
    static constexpr unsigned kMaxFieldWidth = 4096;

    // Empty texts, no chained stream, level 3.
    CLogStream() = default;
    CLogStream(const CLogStream&) = default;
    CLogStream& operator=(const CLogStream&) = default;

    virtual ~CLogStream();

    // Writes the collected text as one line to the shared log file and clears it, whether or not the write
    // succeeded. With no collected text it does nothing and opens no file. The shared file is opened on the
    // first flush of the process (or after it was closed) in this stream's folder; until it is closed again,
    // every stream of the process writes into it whatever its own folder. Never throws.
    virtual void Flush();

    // The text as it is (embedded zero bytes included), or through a custom format with a %s conversion.
    virtual CLogStream& operator<<(const std::string& text);
    // Default "%I64u".
    virtual CLogStream& operator<<(unsigned long long value);
    // Default "%I64d".
    virtual CLogStream& operator<<(long long value);
    // Default "%I64u"; the value is widened to 64 bits first.
    virtual CLogStream& operator<<(unsigned long value);
    // Default "%I64d"; the value is widened to 64 bits first.
    virtual CLogStream& operator<<(long value);
    // Default "%f".
    virtual CLogStream& operator<<(double value);
    // Default "%f"; the value is widened to double.
    virtual CLogStream& operator<<(float value);
    // Default "%u".
    virtual CLogStream& operator<<(unsigned int value);
    // Default "%d".
    virtual CLogStream& operator<<(int value);
    // Default "%hu".
    virtual CLogStream& operator<<(unsigned short value);
    // Default "%hd".
    virtual CLogStream& operator<<(short value);
    // A zero-terminated UTF-16 string, converted to UTF-8.
    virtual CLogStream& operator<<(const char16_t* text);
    // Default "%s".
    virtual CLogStream& operator<<(const char* text);
    // A UTF-16 string, converted to UTF-8 from a copy of it.
    virtual CLogStream& operator<<(const std::u16string& text);
    // Default "%s"; the bytes are taken as 8-bit text.
    virtual CLogStream& operator<<(const unsigned char* text);

    // Carried with the stream; it filters nothing.
    void SetLevel(int32_t level) { m_level = level; }
    // The folder of the log file, without a trailing separator; empty for the default folder.
    void SetFolder(const std::string& folder) { m_folder = folder; }
    // The custom format of every append; empty for the default formats.
    void SetFormat(const std::string& format) { m_format = format; }
    // The stream that the next append returns instead of this one (null for none).
    void Chain(CLogStream* next) { m_chained = next; }
    // Adds `text` to the collected text unformatted.
    void AppendRaw(const std::string& text);

    const std::string& Text() const { return m_text; }
    int32_t Level() const { return m_level; }
    const std::string& Folder() const { return m_folder; }
    const std::string& Format() const { return m_format; }
    CLogStream* Chained() const { return m_chained; }

    // The folder used when none is set, with a trailing separator: "D:\log\Vexa\Log\" on Windows,
    // "/var/log/Vexa/Log/" elsewhere.
    static std::string DefaultFolderBase();
    // Closes the shared log file of the process; the next flush opens it again (in its stream's folder).
    static void CloseSharedFile();

private:
    // The stream an append returns: the chained one (taken) or this one.
    CLogStream& Next();
    // These add one formatted value to the collected text; a value that cannot be formatted adds nothing.
    template <typename T>
    void AppendInteger(const char* defaultFormat, T value);
    void AppendFloating(double value);
    // Through the custom format when that has a %s conversion, else unchanged.
    void AppendText(const std::string& text);

    CLogStream* m_chained = nullptr;
    std::string m_format;
    std::string m_text;
    int32_t m_level = kDefaultLevel;
    std::string m_folder;
};
