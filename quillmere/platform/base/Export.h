#ifndef QUILLMERE_PLATFORM_BASE_EXPORT_H
#define QUILLMERE_PLATFORM_BASE_EXPORT_H

/// Marks what the shared library offers to others; all other names stay its own.
#define QUILLMERE_EXPORT [[gnu::visibility("default")]]

#endif
