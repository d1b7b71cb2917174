// The page's texts in German and English. The language follows the browser's preferences; the
// module's own texts (title, "Stored Documents", the archive message) are used where they exist.

const texts = {
  de: {
    appTitle: "Dokumente", // the module's title
    storedDocuments: "Abgelegte Dokumente",
    archivedMessage: "Neue Version des Dokuments %s wurde archiviert.",
    loginTitle: "Anmelden",
    user: "Benutzer",
    password: "Passwort",
    login: "Anmelden",
    logout: "Abmelden",
    loggedInAs: "Angemeldet als %s",
    wrongPassword: "Benutzername oder Passwort ist falsch.",
    sessionExpired: "Ihre Sitzung ist abgelaufen. Bitte melden Sie sich neu an.",
    loggedOut: "Sie sind abgemeldet.",
    table: "Tabelle",
    filterText: "Datensätze filtern",
    docSearch: "Dokumentname enthält",
    search: "Suchen",
    records: "Datensätze",
    noRecords: "Keine Datensätze gefunden.",
    pageOf: "Seite %s von %s (%s Datensätze)",
    previous: "Zurück",
    next: "Weiter",
    chooseRecord: "Wählen Sie links einen Datensatz.",
    documentsOf: "Dokumente von %s",
    noDocuments: "Dieser Datensatz hat noch keine Dokumente.",
    name: "Name",
    size: "Größe",
    version: "Version",
    modified: "Geändert",
    created: "Erstellt",
    actions: "Aktionen",
    upload: "Dateien hochladen",
    uploadInto: "Hochladen in",
    rootFolder: "(Hauptordner)",
    dropHint: "Dateien hierher ziehen, um sie in den gewählten Ordner hochzuladen",
    newFolder: "Neuer Ordner",
    folderName: "Name des neuen Ordners",
    create: "Anlegen",
    cancel: "Abbrechen",
    download: "Herunterladen",
    downloadPdf: "Als PDF",
    preview: "Vorschau",
    replace: "Ersetzen",
    versions: "Versionen",
    delete: "Löschen",
    close: "Schließen",
    confirmDelete: "Das Dokument „%s“ wirklich löschen?",
    deleted: "„%s“ wurde gelöscht.",
    uploaded: "%s Datei(en) hochgeladen.",
    uploading: "Lade %s hoch …",
    downloading: "Lade %s herunter …",
    folderCreated: "Ordner „%s“ wurde angelegt.",
    notConverted: "„%s“ konnte nicht in PDF umgewandelt werden.",
    versionsOf: "Versionen von „%s“",
    currentVersion: "aktuell",
    noVersions: "Keine archivierten Versionen.",
    failed: "Fehler: %s",
    notAvailable: "Diese Funktion bietet der Server nicht an.",
    openFolder: "Ordner öffnen",
    closeFolder: "Ordner schließen",
    pages: "Seiten",
    filterCaption: "Suche nach abgelegten Dokumenten",
  },
  en: {
    appTitle: "Documents",
    storedDocuments: "Stored Documents",
    archivedMessage: "New version of the document %s has been archived.",
    loginTitle: "Sign in",
    user: "User",
    password: "Password",
    login: "Sign in",
    logout: "Sign out",
    loggedInAs: "Signed in as %s",
    wrongPassword: "The user name or the password is wrong.",
    sessionExpired: "Your session has expired. Please sign in again.",
    loggedOut: "You are signed out.",
    table: "Table",
    filterText: "Filter records",
    docSearch: "Document name contains",
    search: "Search",
    records: "Records",
    noRecords: "No records found.",
    pageOf: "Page %s of %s (%s records)",
    previous: "Previous",
    next: "Next",
    chooseRecord: "Choose a record on the left.",
    documentsOf: "Documents of %s",
    noDocuments: "This record has no documents yet.",
    name: "Name",
    size: "Size",
    version: "Version",
    modified: "Modified",
    created: "Created",
    actions: "Actions",
    upload: "Upload files",
    uploadInto: "Upload into",
    rootFolder: "(main folder)",
    dropHint: "Drop files here to upload them into the chosen folder",
    newFolder: "New folder",
    folderName: "Name of the new folder",
    create: "Create",
    cancel: "Cancel",
    download: "Download",
    downloadPdf: "As PDF",
    preview: "Preview",
    replace: "Replace",
    versions: "Versions",
    delete: "Delete",
    close: "Close",
    confirmDelete: "Really delete the document “%s”?",
    deleted: "“%s” was deleted.",
    uploaded: "%s file(s) uploaded.",
    uploading: "Uploading %s …",
    downloading: "Downloading %s …",
    folderCreated: "Folder “%s” was created.",
    notConverted: "“%s” could not be converted to PDF.",
    versionsOf: "Versions of “%s”",
    currentVersion: "current",
    noVersions: "No archived versions.",
    failed: "Failed: %s",
    notAvailable: "The server doesn't offer this function.",
    openFolder: "Open folder",
    closeFolder: "Close folder",
    pages: "Pages",
    filterCaption: "Search by stored documents",
  },
};

// The first of the browser's languages that we have, else English.
export function chooseLanguage(preferred = navigator.languages || [navigator.language]) {
  for (const tag of preferred) {
    const base = String(tag || "").toLowerCase().split("-")[0];
    if (base in texts) return base;
  }
  return "en";
}

export const lang = chooseLanguage();

// The text for a key with each "%s" replaced by the next argument.
export function t(key, ...args) {
  const text = texts[lang][key] ?? texts.en[key] ?? key;
  let i = 0;
  return text.replace(/%s/g, () => String(args[i++] ?? ""));
}

// Fills the elements that name a text key: data-i18n sets the text, data-i18n-label the
// aria-label, data-i18n-placeholder the placeholder.
export function translatePage(root = document) {
  document.documentElement.lang = lang;
  for (const el of root.querySelectorAll("[data-i18n]")) el.textContent = t(el.dataset.i18n);
  for (const el of root.querySelectorAll("[data-i18n-label]"))
    el.setAttribute("aria-label", t(el.dataset.i18nLabel));
  for (const el of root.querySelectorAll("[data-i18n-placeholder]"))
    el.placeholder = t(el.dataset.i18nPlaceholder);
}

const numberFormat = new Intl.NumberFormat(lang, { maximumFractionDigits: 1 });
export function formatSize(bytes) {
  const units = ["B", "KB", "MB", "GB", "TB"];
  let v = Number(bytes) || 0;
  let u = 0;
  while (v >= 1024 && u < units.length - 1) {
    v /= 1024;
    u++;
  }
  return `${numberFormat.format(v)} ${units[u]}`;
}

const dateFormat = new Intl.DateTimeFormat(lang, { dateStyle: "medium", timeStyle: "short" });
export function formatDate(iso) {
  if (!iso) return "";
  const d = new Date(iso);
  return Number.isNaN(d.getTime()) ? String(iso) : dateFormat.format(d);
}
