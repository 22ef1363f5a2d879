#ifndef QUILLMERE_CALDAV_KBTDAVPRINCIPALDELEGATE_H
#define QUILLMERE_CALDAV_KBTDAVPRINCIPALDELEGATE_H

namespace quillmere {

/// Receives what a principal finds out.
class KBTDavPrincipalDelegate {
 public:
  virtual ~KBTDavPrincipalDelegate() = default;
};

}  // namespace quillmere

#endif
