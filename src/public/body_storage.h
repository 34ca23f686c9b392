// The failure body storage of the library objects.
#ifndef QUILLON_PUBLIC_BODY_STORAGE_H
#define QUILLON_PUBLIC_BODY_STORAGE_H

namespace NSQuillon2 {

// Library objects alive at once share one storage: the first installs it and
// the last one gone deletes it, so that no object is left without one.
void AcquireLibraryBodyStorage();
void ReleaseLibraryBodyStorage();

}  // namespace NSQuillon2

#endif
