/*
 * Changes of a description's text: components that come and go, values that are
 * others. What is not changed keeps its order and its formatting. Each returns an
 * empty text, or why it cannot be; then nothing was changed.
 */
#ifndef KAVPLAT_EDIT_EDIT_H
#define KAVPLAT_EDIT_EDIT_H

#include "spans.h"

namespace kavplat_edit
{

/* A text that the loader has taken, and what stands where in it. */
class sheet
{
  public:
    sheet(std::string text, std::string directory);

    const std::string &text() const { return text_; }
    const std::string &directory() const { return directory_; } /* with its '/' at the end */
    const span &root() const { return root_; }
    const std::vector<span> &components() const { return components_->items; }
    const std::string &name(size_t component) const { return names_[component]; }
    size_t count() const { return names_.size(); }

    /* A component and all below it, by their places; empty when there is none. */
    std::vector<size_t> family(const std::string &name) const;

    /* Other text: the places are found anew. */
    void assign(std::string text);

  private:
    std::string text_;
    std::string directory_;
    span root_;
    const span *components_ = nullptr;
    std::vector<std::string> names_;
};

/* Takes components away, with all below them. */
std::string unplug(sheet &in, const std::vector<std::string> &names, std::string &told);

struct plugged {
    std::string name;   /* what is to come */
    std::string source; /* as what it stands in the sheet that it is taken from */
    std::string serial; /* of the one that has a serial number; empty: as there */
};
std::string plug(sheet &in, const sheet &from, const plugged &what, std::string &told);

struct assignment {
    std::string key; /* "reading", "sensor.reading", "fru.serial"... */
    std::string value;
};
/* Of a component, or of "product" or "chassis". A value that is bound to a file is
 * only replaced when that is wanted. */
std::string set(sheet &in, const std::string &name, const std::vector<assignment> &values,
                bool unbind, std::string &told);

} // namespace kavplat_edit

#endif
