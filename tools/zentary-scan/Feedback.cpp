#include "Feedback.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace zentary {

void ProgressReporter::phase(const std::string& name)
{
    finish();
    mPhase = name;
    if (mTerminal)
        draw(0);
    else
        std::fprintf(stderr, "%s...\n", name.c_str());
}

void ProgressReporter::update(double fraction)
{
    if (!mTerminal || mPhase.empty()) return;
    auto now = std::chrono::steady_clock::now();
    if (mDrawn && now - mLastDraw < std::chrono::milliseconds(100) && fraction < 1) return;
    draw(fraction);
}

void ProgressReporter::draw(double fraction)
{
    fraction = fraction < 0 ? 0 : fraction > 1 ? 1 : fraction;
    constexpr int kWidth = 30;
    int filled = static_cast<int>(fraction * kWidth);
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.append(static_cast<std::size_t>(kWidth - filled), ' ');
    std::fprintf(stderr, "\r%-12s [%s] %3d%%", mPhase.c_str(), bar.c_str(), static_cast<int>(fraction * 100));
    std::fflush(stderr);
    mDrawn = true;
    mLastDraw = std::chrono::steady_clock::now();
}

void ProgressReporter::finish()
{
    if (mTerminal && mDrawn) std::fputc('\n', stderr);
    mDrawn = false;
    mPhase.clear();
}

std::string jsonString(const std::string& line, const std::string& key)
{
    std::string needle = "\"" + key + "\":\"";
    std::size_t at = line.find(needle);
    if (at == std::string::npos) return {};
    std::string out;
    for (std::size_t i = at + needle.size(); i < line.size(); ++i) {
        char c = line[i];
        if (c == '"') return out;
        if (c != '\\' || i + 1 >= line.size()) {
            out += c;
            continue;
        }
        char e = line[++i];
        switch (e) {
        case 'n': out += '\n'; break;
        case 't': out += '\t'; break;
        case 'r': out += '\r'; break;
        case 'u':
            // Only control characters are escaped this way in our logs.
            if (i + 4 < line.size()) {
                out += static_cast<char>(std::strtol(line.substr(i + 1, 4).c_str(), nullptr, 16) & 0x7F);
                i += 4;
            }
            break;
        default: out += e; break;
        }
    }
    return {};  // unterminated: a line cut short is not trusted
}

UiLogSummary readUiLog(const std::string& path)
{
    UiLogSummary summary;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        if (line.find("\"event\":\"alert\"") != std::string::npos) {
            AlertSeen alert;
            std::size_t row = line.find("\"row\":");
            if (row != std::string::npos) alert.row = std::atoi(line.c_str() + row + 6);
            alert.message = jsonString(line, "message");
            alert.informative = jsonString(line, "informative");
            summary.alerts.push_back(alert);
        }
        // Cancel pressed in the dialog or in the progress window.
        if (line.find("\"event\":\"dialog.cancel\"") != std::string::npos ||
            line.find("\"event\":\"progress.cancel\"") != std::string::npos)
            summary.cancelled = true;
        std::size_t percent = line.find("\"percent\":");
        if (percent != std::string::npos) summary.percent = std::atoi(line.c_str() + percent + 10);
    }
    return summary;
}

}  // namespace zentary
