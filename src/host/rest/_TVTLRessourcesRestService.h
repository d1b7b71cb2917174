// Resources over HTTP: the route /resources, through which clients of the server list the
// resource containers that the plug-ins offer for a record and carry out actions on them. It runs
// inside a session, as the session's user: every container and action sees that user's rights.
//
//   GET  /resources?identifier=I&id=N[&ref=R][&source=S]
//        Asks every enabled resource source for its container of identifier I and record id N
//        ("doc://..." addresses give a document tree). Without ref: each container with its top
//        level. With ref: the children of that resource (a directory of a tree), in the container
//        of source S or, without S, the first one.
//        {"identifier", "id", "ref", "containers": [{"source", "caption", "actions", "resources":
//        [{"ref", "id", "caption", "extension", "name", "date", "size", "flags", "tags",
//        "has_children", "writeable", "actions"}]}]}
//
//   POST /resources?identifier=I&id=N&action=A[&ref=R][&source=S][&name=X][&document_id=D]
//        Carries out action A on resource R (without R: on the container) of the container of
//        source S or the first one:
//          save_copy      answers the stored file (application/octet-stream)
//          replace        the request body becomes the resource's new content
//          add_document   the body becomes a new document named X in directory R (or the top)
//          add_directory  a new directory named X in directory R (or the top)
//          delete         the resource goes (a linked document: the document and all its links)
//          add_link       links stored document D under the name X (linked-document containers)
//        Others answer {"done": true}. An action the resource doesn't offer is refused with 403.
//
// A resource's ref is the path of its kind and id from the top ("d:12/f:7": directory 12, in it
// file 7); clients take it from a listing. Failures come in the REST error form with 400 for a
// bad request, 403 for missing rights, 404 for an unknown resource or document, 409 when the
// action was not carried out or the document changed meanwhile, 500 otherwise.
#pragma once

#include "_PluginIntf.h"
#include "_THTTPServer.h"

namespace docadmin {

// The route's path.
inline constexpr const char* RessourcesRoutePath = "/resources";

// Answers a request for RessourcesRoutePath; never raises.
THTTPResponse HandleRessourcesRequest(const THTTPRequest& ARequest, IMainInterface* AMainInterface);

}  // namespace docadmin
