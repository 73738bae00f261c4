// Fills a template with the option definitions, for the manual page, the completion and the table
// in README.md. usage: describe_options TEMPLATE RESULT
#include <qmtranscode/cli/OptionTable.h>

#include <fstream>
#include <iostream>
#include <iterator>

int main(int argc, char** argv) {
    using namespace android::qmmediaeditor::cli;
    if (argc != 3) {
        std::cerr << "usage: describe_options TEMPLATE RESULT\n";
        return 2;
    }
    std::ifstream in(argv[1]);
    const std::string text(std::istreambuf_iterator<char>(in), {});
    std::ofstream out(argv[2]);
    out << fillTemplate(text, optionTexts());
    return in && out.flush() ? 0 : 1;
}
