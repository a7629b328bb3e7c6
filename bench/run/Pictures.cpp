#include "Pictures.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "Table.h"

namespace {

constexpr int kWidth = 900;
constexpr int kBarLeft = 290;
constexpr int kBarLength = 460;
constexpr int kRowHeight = 18;
constexpr int kTitleHeight = 34;

/// By role, in its order.
constexpr const char* kColours[] = {"#1f6fb2", "#9ec5e8", "#9ec5e8", "#c9a15a", "#9a9a9a"};

class Drawing {
public:
    void Add(const char* pszFormat, ...) __attribute__((format(printf, 2, 3))) {
        char line[1024];
        va_list arguments;
        va_start(arguments, pszFormat);
        vsnprintf(line, sizeof(line), pszFormat, arguments);
        va_end(arguments);
        m_text += line;
        m_text += '\n';
    }
    bool Save(const std::string& path, int height) const {
        FILE* pFile = fopen(path.c_str(), "w");
        if (!pFile) {
            perror(path.c_str());
            return false;
        }
        fprintf(pFile,
                "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" viewBox=\"0 0 %d %d\" "
                "font-family=\"sans-serif\" font-size=\"12\">\n<rect width=\"100%%\" height=\"100%%\" "
                "fill=\"white\"/>\n%s</svg>\n",
                kWidth, height, kWidth, height, m_text.c_str());
        return fclose(pFile) == 0;
    }

private:
    std::string m_text;
};

std::string Escape(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        escaped += c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : std::string(1, c);
    }
    return escaped;
}

/// How fast, so that more is better whatever the unit.
double Speed(const Subject& subject, const Series& series) {
    const double median = series.Median();
    return subject.better == Better::More ? median : median > 0 ? 1 / median : 0;
}

/// @return where the next subject begins
int DrawSubject(const Subject& subject, const Outcome& outcome, int top, Drawing* pDrawing) {
    double best = 0;
    for (const Series& one : outcome.series) {
        if (one.role != Role::Itself) {
            best = std::max(best, Speed(subject, one));
        }
    }
    pDrawing->Add("<text x=\"10\" y=\"%d\" font-weight=\"bold\">%s</text>", top + 22, Escape(subject.pszTitle).c_str());
    int y = top + kTitleHeight;
    for (const Series& one : outcome.series) {
        if (one.role == Role::Itself) {
            continue;
        }
        const int length = best > 0 ? std::max(1, static_cast<int>(kBarLength * Speed(subject, one) / best)) : 1;
        pDrawing->Add("<text x=\"%d\" y=\"%d\" text-anchor=\"end\">%s%s</text>", kBarLeft - 8, y + 12,
                      one.role == Role::Floor ? "floor: " : "", Escape(one.label).c_str());
        pDrawing->Add("<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"%d\" fill=\"%s\"/>", kBarLeft, y, length,
                      kRowHeight - 4, kColours[static_cast<int>(one.role)]);
        pDrawing->Add("<text x=\"%d\" y=\"%d\">%s %s</text>", kBarLeft + length + 6, y + 12,
                      NumberText(one.Median()).c_str(), subject.pszUnit);
        y += kRowHeight;
    }
    return y;
}

bool IsComparison(const Outcome& outcome) {
    return outcome.Best(Role::Peer, Better::More) || outcome.Best(Role::Floor, Better::More);
}

std::string GroupOf(const Subject& subject) {
    const std::string name = subject.pszName;
    return name.substr(0, name.find('/'));
}

} // namespace

bool DrawPictures(const Results& results, const std::string& directory) {
    std::vector<std::string> groups;
    for (const Subject& subject : AllSubjects()) {
        const auto found = results.find(subject.pszName);
        if (found != results.end() && IsComparison(found->second) &&
            std::find(groups.begin(), groups.end(), GroupOf(subject)) == groups.end()) {
            groups.push_back(GroupOf(subject));
        }
    }
    for (const std::string& group : groups) {
        Drawing drawing;
        int y = 0;
        for (const Subject& subject : AllSubjects()) {
            const auto found = results.find(subject.pszName);
            if (GroupOf(subject) == group && found != results.end() && IsComparison(found->second)) {
                y = DrawSubject(subject, found->second, y, &drawing);
            }
        }
        if (!drawing.Save(directory + "/" + group + ".svg", y + 10)) {
            return false;
        }
    }
    return true;
}
