/* What every page has: page.css and page.js, put into the program when it is built. */
#ifndef KAVPLAT_TREE_PAGE_PARTS_H
#define KAVPLAT_TREE_PAGE_PARTS_H

namespace kavplat_tree
{

extern const char *const page_style;
extern const char *const page_script;

} // namespace kavplat_tree

#endif
