/* Indexes two confidential texts and asks which of them an outgoing message
 * quotes. Build it with
 *
 *   cc index_and_match.c $(pkg-config --cflags --libs tessera) -o index_and_match
 *
 * and run it in a directory of its own: the library keeps its index in
 * "sig_index_DB" and its settings in "index_sys_config.txt" there. */
#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include "tessera.h"

static char contract[] =
    "The supplier delivers twelve feed pumps of the series M-430 to the works in Aarau, the "
    "first four of them by the end of March and the rest in monthly lots of two. Each pump is "
    "run for forty-eight hours at ninety percent of its rated pressure before it leaves the test "
    "bench, and the log of that run goes with the shipping papers. The price of one pump is "
    "48,200 francs free works, packing included. A delay of more than ten working days lowers "
    "the price of the late lot by one percent for each further week, but by no more than eight "
    "percent altogether. Both sides keep the content of this agreement and its annexes to "
    "themselves for five years. The drawings that the supplier hands over stay the property of "
    "the supplier; they may be copied for operation and repair, and for nothing else. Spare "
    "seals and bearings are held in stock for fifteen years after the last delivery, at list "
    "prices less a fifth.";

static char minutes[] =
    "Present were the five members of the board and the head of finance. The chair opened the "
    "meeting at nine and stated that the invitation had been sent in time. Revenue of the third "
    "quarter came to 31.4 million, two million below the plan, since two large orders from "
    "Norway slipped into the new year. The board discussed the offer for the valve division that "
    "came in on the fourteenth. Three members favour a sale above 60 million; the two others "
    "want to wait for the figures of the whole year. It was agreed to let the bidder into the "
    "books under a letter of confidence, and to answer the offer in the second week of January. "
    "The salaries of the staff rise by 1.8 percent in April. The works council hears of it on "
    "Monday, and nobody speaks of it before. The next meeting is on the ninth of January, again "
    "at nine.";

static char message[] =
    "Hi Tom, you asked me what they talk about upstairs. Between us: The board discussed the "
    "offer for the valve division that came in on the fourteenth. Three members favour a sale "
    "above 60 million; the two others want to wait for the figures of the whole year. It was "
    "agreed to let the bidder into the books under a letter of confidence, and to answer the "
    "offer in the second week of January. The salaries of the staff rise by 1.8 percent in "
    "April. The works council hears of it on Monday, and nobody speaks of it before. So not a "
    "word to anyone. See you at lunch, Anna";

/* Tells which call failed, and whether one did. */
static int failed(int status, const char* call) {
  if (status != 0) fprintf(stderr, "index_and_match: %s returned %d\n", call, status);
  return status != 0;
}

/* Puts the signatures of a text into the open index. A text of less than 61 letters
 * and digits has none, and is refused. */
static int add(int64_t file_id, char* text) {
  unsigned char(*signatures)[8];
  int count;
  int status;

  status = GenerateSignature4Text(text, (int)strlen(text), &signatures, &count);
  if (failed(status, "GenerateSignature4Text")) return 1;
  status = AddDocSignature(file_id, signatures, count);
  FreeSignature(signatures);
  return failed(status, "AddDocSignature");
}

/* Builds the index, or adds to one that is there. */
static int index_documents(void) {
  int faults = 0;

  if (failed(InitIndexSystem(), "InitIndexSystem")) return 1;
  faults += add(1, contract);
  faults += add(2, minutes);
  /* Writes what was added, and the tables that matching loads. */
  faults += failed(ExitIndexSystem(), "ExitIndexSystem");
  return faults;
}

/* Prints the documents that share passages with a text. */
static int report(char* text) {
  static const char* const levels[] = {"a trace", "a weak match", "a strong match"};
  const int length = (int)strlen(text);
  unsigned char(*signatures)[8];
  int count;
  /* The result variable must hold some pointer that is not null; the call
   * replaces it. */
  _DLPSigMatchRet none;
  _DLPSigMatchRet* matches = &none;
  int match_count;
  int status;
  int i;

  status = GenerateSignature4Text(text, length, &signatures, &count);
  if (failed(status, "GenerateSignature4Text")) return 1;
  if (count == 0) { /* too short to have signatures, which matches nothing */
    printf("no document\n");
    return 0;
  }
  status = MatchSignature(signatures, count, length, &matches, &match_count);
  FreeSignature(signatures);
  if (failed(status, "MatchSignature")) return 1;
  for (i = 0; i < match_count; ++i) {
    printf("document %" PRId64 ": %s\n", matches[i].fileID, levels[matches[i].match_level]);
  }
  if (match_count == 0) printf("no document\n");
  FreeSigMatchRet(matches);
  return 0;
}

static int match_message(void) {
  int faults;

  if (failed(InitMatchSystem(), "InitMatchSystem")) return 1;
  faults = report(message);
  return faults + failed(ExitMatchSystem(), "ExitMatchSystem");
}

int main(void) {
  int faults;

  /* The generator first: it creates the settings file that the others read. */
  if (failed(InitSignatureGenerator(TESSERA_CLIENT), "InitSignatureGenerator")) return 1;
  faults = index_documents();
  if (faults == 0) faults = match_message();
  faults += failed(ExitSignatureGenerator(), "ExitSignatureGenerator");
  return faults != 0;
}
