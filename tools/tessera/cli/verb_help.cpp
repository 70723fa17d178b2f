// What `--help` and the manual say of each verb.
#include "cli/command_line.h"

namespace tool {

const std::vector<VerbHelp>& allHelp() {
  static const std::vector<VerbHelp> help = {
      {"tessera",
       "",
       "fingerprints of documents",
       "Keeps an index of the documents that matter and tells which of them a file shares "
       "passages with: copied, retyped, cut, rewrapped or saved in another format.\n"
       "Documents are plain text in any encoding, HTML, XML, e-mail and mailboxes, DOCX, XLSX, "
       "PPTX, ODT, ODS, ODP, PDF, RTF, DOC, XLS, PPT, EPUB, source code, and archives of all "
       "these. What is in them is told by their content, not by their name. They are opened in "
       "confined processes with limits; what cannot be opened is reported as \"not inspected\", "
       "with the reason.\n"
       "The home is the directory that holds the configuration, the index and its catalogue: "
       "--home DIR, else the environment's TESSERA_HOME, else \".tessera\" in the current "
       "directory. It holds fingerprints and names of confidential documents; keep it as "
       "confidential as they are.",
       "0  done; nothing matched\n"
       "1  match found a document\n"
       "2  something could not be done; a message says what\n"
       "3  match found nothing, but not everything was inspected",
       {{"tessera index ~/contracts", "index every document below a directory"},
        {"tessera match draft.docx", "what does the draft have in common with them?"},
        {"tessera match --explain draft.docx", "and which passages are that?"}}},

      {"index",
       "Keeping an index",
       "Add documents to the index, or renew them",
       "Opens every file named, and every file below the directories named, and puts the "
       "fingerprints of each document in it into the index.\n"
       "Only what has changed is indexed again: a document with the same content is left alone, "
       "one with another replaces what the index held of it. With --prune, documents that are "
       "gone from below the named directories leave the index. But a "
       "directory that is named and is empty now, cannot be listed or is gone keeps its documents, "
       "which is told: a disk may be missing. --prune-empty removes them too. A run that is cut off is made good by the next "
       "one; after Ctrl-C what was done so far is kept.\n"
       "The selection \"full\" finds single paragraphs. \"sparse\" takes about an eighth of the "
       "room and finds documents that share a good part of their text.",
       "0  everything was indexed\n"
       "2  something could not be found, read or indexed; the rest was\n"
       "3  everything was indexed, but for what could not be inspected",
       {{"tessera index ~/contracts ~/plans/2024.pdf", ""},
        {"tessera index --label board --prune /srv/board", "a folder, kept up to date by a timer"},
        {"find . -newer last -print0 | tessera index -0 --files-from -", "what find has found"}}},

      {"watch",
       "Keeping an index",
       "Index a directory as it changes",
       "Indexes the directories named and then every document in them that is added, changed "
       "or removed, until it is ended by Ctrl-C. A file is indexed when it has been left alone "
       "for a while. Between that the index is free for other commands; one that is at work is "
       "waited for. Changes behind symbolic links are not seen.\n"
       "A directory that goes away, with a disk that is taken out, say, ends the watch; its "
       "documents stay in the index.",
       "0  ended by the user\n"
       "2  something could not be indexed, or a directory is gone\n"
       "3  ended by the user, but something could not be inspected",
       {{"tessera watch --label board /srv/board", ""}}},

      {"delete",
       "Keeping an index",
       "Remove documents from the index",
       "Removes the documents that were indexed under the names given, or below the directories "
       "given, that have one of the file IDs, or that bear the label. The files themselves are "
       "not touched, and need not exist. A member of a container is named as match and list name "
       "it, FILE!MEMBER. What is indexed again afterwards comes back.",
       "0  they are gone from the index\n"
       "2  nothing of this name is in the index, or it could not be changed",
       {{"tessera delete ~/contracts/old", "everything that was indexed below a directory"},
        {"tessera delete --id 17 --id 18", ""},
        {"tessera delete --label board", ""}}},

      {"common",
       "Keeping an index",
       "Keep text that is no secret out of all verdicts",
       "Letterheads, disclaimers and licences stand in many documents and make them look alike. "
       "Text that is declared common counts nowhere: not in documents of the index, not in what "
       "is matched.\n"
       "\"add\" declares the text of files common, \"remove\" takes that back, \"list\" shows "
       "the files that were added, \"suggest\" shows signatures that stand in many documents of "
       "the index (in a tenth of them, and in three at least, unless said otherwise), with how "
       "many these are and the names of some.",
       "0  done\n"
       "2  something could not be done",
       {{"tessera common add letterhead.docx LICENSE", ""},
        {"tessera common suggest --min-documents 50", "what stands in 50 documents or more?"}}},

      {"match",
       "Inspecting documents",
       "Tell which documents of the index a file matches",
       "Opens every file as \"index\" does and compares each document in it with the index. "
       "\"-\" is the standard input.\n"
       "Levels: 2 when a document of the index holds at least a tenth of the signatures of the "
       "inspected one, or 9 of them; 1 at least a twentieth, or 3; 0 at least one.\n"
       "With --explain the passages that both share are shown, with their place in the "
       "inspected document's canonical text, counted in bytes (\"tessera text\" prints that "
       "text).\n"
       "What could not be inspected, wholly or in part, is always reported, with the reason.",
       "0  nothing matched\n"
       "1  something matched\n"
       "2  a file could not be read, or there is no index\n"
       "3  nothing matched, but not everything was inspected (0 with --lenient)",
       {{"tessera match outgoing.eml && echo clean", ""},
        {"tessera match --min-level 2 --json ~/upload | jq .matches", ""},
        {"git diff --name-only -z | tessera match -0 --files-from -", "what is about to be sent"},
        {"curl -s https://example.org/page | tessera match --explain -", ""}}},

      {"text",
       "Inspecting documents",
       "Print the text of a document as it is fingerprinted",
       "Documents are fingerprinted in one canonical form of their text: UTF-8, NFC, without "
       "invisible characters, typographic variants folded. This prints it. When a file has "
       "several documents in it, each is headed by its name.",
       "0  all of it was printed\n"
       "2  the file, or something in it, could not be inspected",
       {{"tessera text report.pdf | less", ""}}},

      {"sig",
       "Inspecting documents",
       "Print the signatures of files",
       "One signature of 8 bytes a line, in hexadecimal, in ascending order. When there are "
       "several documents, each is headed by its name. Settings are taken from the home when "
       "there is one; nothing is written.",
       "0  all signatures were printed\n"
       "2  a file, or something in it, could not be inspected",
       {{"comm -12 <(tessera sig a.txt) <(tessera sig b.pdf)", "what two documents share"},
        {"tessera sig --json *.docx", ""}}},

      {"list",
       "Looking at an index",
       "Show the documents of the index",
       "All documents, or those indexed under the names given and below the directories given, "
       "and then what of these was not inspected.",
       "0  shown\n"
       "2  there is no index, or it cannot be read",
       {{"tessera list ~/contracts", ""}, {"tessera list --json --label board", ""}}},

      {"stats",
       "Looking at an index",
       "Show how much there is in the index",
       "Documents, signatures, bytes, and how far the index is from its limits.",
       "0  shown\n"
       "2  there is no index, or it cannot be read",
       {{"tessera stats", ""}}},

      {"export",
       "Looking at an index",
       "Write the catalogue or the index as a table",
       "\"catalogue\" writes a row for every document, \"tables\" one for every signature of "
       "every document. The result goes to the standard output, as CSV with a head line or as "
       "JSON lines.",
       "0  everything was written\n"
       "2  there is no index, or it cannot be read",
       {{"tessera export catalogue >documents.csv", ""},
        {"tessera export tables --json | zstd >index.jsonl.zst", ""}}},

      {"verify",
       "Looking after an index",
       "Check that an index is whole",
       "Reads every block of the index and of its search tables and compares them with each "
       "other and with the catalogue. Changes nothing.",
       "0  it is whole\n"
       "2  it is not, or it could not be read",
       {{"tessera verify", ""}}},

      {"rebuild",
       "Looking after an index",
       "Make the search tables anew",
       "Writes the search tables anew from the index. With --from-catalogue the index too is "
       "made anew, from the signatures that the catalogue keeps; the documents are not needed "
       "for that.",
       "0  done\n"
       "2  it could not be done",
       {{"tessera rebuild", ""}, {"tessera rebuild --from-catalogue", "after the index was lost"}}},
  };
  return help;
}

}  // namespace tool
