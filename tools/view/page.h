// The page's files, built into the program (tools/view/page/): the page
// loads nothing else, from here or elsewhere.
#ifndef VEXA_VIEW_PAGE_H
#define VEXA_VIEW_PAGE_H

#include <string>

namespace vexa::view {

// index.html, with "{{TOKEN}}" where the run's token goes.
std::string page_html();
std::string page_js();
std::string page_css();

} // namespace vexa::view

#endif
