// File handling: converting files between formats with outside programs.
//
// TKRFileHandlerClient.ConvertFormat converts by the destination's extension. Two handlers do the
// work: LibreOffice without a window (office and text formats, to PDF and between office
// formats) and ImageMagick (images, to PDF and to other image formats). ImageMagick only decodes
// the image, into plain pixel files; this unit writes the PDF around them itself, so the system's
// ImageMagick policy, which on Debian forbids writing PDF, stays as it is and needs no private
// policy.
//
// Every conversion runs in a fresh private folder under the temporary path: its own LibreOffice
// profile (so conversions don't share or lock one), its own TMPDIR and HOME, the program's output
// there. The program runs without a shell in a process group of its own, which is killed at the
// deadline. The result is moved into place in one step, replacing an existing destination; on
// failure the destination is untouched and nothing is left behind. A process-wide limit caps the
// conversions that run at once (LibreOffice takes a few hundred MB each); a conversion waits for a
// slot within its own time limit.
//
// Thread-safety: ConvertFormat may run on many threads at once. The settings of a client
// (timeout, executables) are set before it is shared; the parallel limit is process-wide and safe
// to change at any time.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "_PluginIntf.h"

namespace docadmin {

// What ShowFile answers.
enum TKRFileHandlerShowResult : std::uint8_t {
    fsrNoHandler = 0,    // nobody handled the file
    fsrHandled = 1,      // handled and finished
    fsrHandledOpen = 2,  // handled and still open
};

// One outside converter: the program and the formats it reads and writes. Extensions are given
// with or without their dot, in any case.
class TKRFileHandler : public TObject {
  public:
    const std::string& Name() const { return FName; }
    // The program; empty when it isn't installed.
    const std::string& Executable() const { return FExecutable; }
    void SetExecutable(const std::string& APath) { FExecutable = APath; }
    bool Available() const { return !FExecutable.empty(); }
    bool ReadsExt(const std::string& AExt) const;
    bool CanConvert(const std::string& ASourceExt, const std::string& ADestExt) const;

    // Converts ASource (with the lower-case extension ASourceExt, dot included) into a file of
    // ADestExt inside AWorkDir, a fresh private folder that is removed afterwards. Answers the
    // path of the result, or empty with the reason in AError.
    virtual std::string Convert(const std::string& ASource, const std::string& ASourceExt,
                                const std::string& ADestExt, const std::string& AWorkDir,
                                std::chrono::steady_clock::time_point ADeadline,
                                std::string& AError) = 0;

  protected:
    TKRFileHandler(std::string AName, std::vector<std::string> AReads,
                   std::vector<std::string> AWrites, std::string AExecutable);

  private:
    std::string FName;
    std::vector<std::string> FReads, FWrites;  // lower case, with the dot
    std::string FExecutable;
};

class TKRFileHandlerClient : public TPluginBaseComponent {
  public:
    // Finds LibreOffice ("soffice") and ImageMagick ("magick", else "convert") on PATH.
    explicit TKRFileHandlerClient(TComponent* AOwner);
    ~TKRFileHandlerClient() override;

    // Converts ASource into the format that ADest's extension names and writes it to ADest. True
    // on success; false, with ADest as it was and nothing left behind, when the format is
    // unknown, no handler is installed, the program fails or the time is up.
    bool ConvertFormat(const std::string& ASource, const std::string& ADest);
    // The first installed handler that reads files of this extension; null when none does.
    TKRFileHandler* GetFileHandlerByExt(const std::string& AExt) const;
    // This build shows no file to a person: always fsrNoHandler, so that the caller opens the
    // file with the system's program or, on the server, leaves it.
    TKRFileHandlerShowResult ShowFile(const std::string& AFileName, bool AReadOnly,
                                      bool AShowEditor);

    // The handlers, LibreOffice first.
    TKRFileHandler& OfficeHandler() const { return *FHandlers[0]; }
    TKRFileHandler& ImageHandler() const { return *FHandlers[1]; }

    // The time limit of one conversion, the wait for a slot included (default 120 s).
    void SetTimeout(std::chrono::milliseconds ATimeout) { FTimeout = ATimeout; }
    std::chrono::milliseconds Timeout() const { return FTimeout; }

    // Conversions that may run at once in this process (default half the cores, at least 1).
    static void SetMaxParallelConversions(int AMax);
    static int MaxParallelConversions();
    // Why the last ConvertFormat of the calling thread failed; empty after a success.
    static std::string LastConvertError();

  private:
    std::vector<std::unique_ptr<TKRFileHandler>> FHandlers;
    std::chrono::milliseconds FTimeout{120000};
};

}  // namespace docadmin
