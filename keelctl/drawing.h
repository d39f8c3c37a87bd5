/*
 * The timeline as a picture: lanes with time downwards, and beneath them a strip for each STB.
 */
#ifndef KEELCTL_DRAWING_H
#define KEELCTL_DRAWING_H

#include <string>

#include "keelctl/timeline.h"

namespace keelctl {

/* A page that needs nothing else: no script, no network; for light and dark screens and for print. */
std::string draw_page(const TimelineStory &story);
/* The picture alone, as an SVG file. */
std::string draw_svg(const TimelineStory &story);

} // namespace keelctl

#endif
