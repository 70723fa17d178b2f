// A gateway in small: indexes a folder of confidential texts, then tells of each outgoing
// message which of them it quotes.
//
//   Gateway HOME FOLDER MESSAGE...
//
// HOME is a directory that keeps the index; it is made when it is missing. Exits with 1 when a
// message was blocked, with 2 when something went wrong.
using System;
using System.Collections.Generic;
using System.IO;
using System.Linq;
using Tessera;

public static class Gateway
{
    public static int Main(string[] arguments)
    {
        if (arguments.Length < 3)
        {
            Console.Error.WriteLine("usage: Gateway HOME FOLDER MESSAGE...");
            return 2;
        }
        try
        {
            string home = Directory.CreateDirectory(arguments[0]).FullName;
            List<string> names = Index(home, arguments[1]);
            // A real gateway keeps this session open, and lets its threads share it.
            using (var session = new MatchSession(home))
            {
                return arguments.Skip(2).Count(message => Blocked(session, message, names)) > 0 ? 1 : 0;
            }
        }
        catch (Exception error) when (error is TesseraException || error is IOException)
        {
            // Whatever could not be inspected must not leave.
            Console.Error.WriteLine("Gateway: " + error.Message);
            return 2;
        }
    }

    /// <summary>Indexes the files of a folder, anew at every start. The number of a document is
    /// its place in the list that is returned.</summary>
    private static List<string> Index(string home, string folder)
    {
        List<string> names = Directory.GetFiles(folder).OrderBy(name => name, StringComparer.Ordinal).ToList();
        using (var index = new IndexSession(home))  // leaving the block saves
        {
            for (int number = 0; number < names.Count; ++number)
            {
                Signature[] signatures = Generator.Signatures(File.ReadAllBytes(names[number]));
                if (signatures.Length == 0)
                {
                    Console.WriteLine(Path.GetFileName(names[number]) + ": too short to be recognised");
                    continue;
                }
                index.Delete(number);  // what an earlier start put there
                index.Add(number, signatures);
            }
        }
        return names;
    }

    private static bool Blocked(MatchSession session, string message, List<string> names)
    {
        Match[] matches = session.Match(Generator.Signatures(File.ReadAllBytes(message)))
            .Where(match => match.Level != MatchLevel.Trace && match.FileId >= 0 && match.FileId < names.Count)
            .ToArray();
        foreach (Match match in matches)
        {
            Console.WriteLine(Path.GetFileName(message) + ": blocked, quotes "
                              + Path.GetFileName(names[(int)match.FileId]) + " (" + match.Level + ")");
        }
        if (matches.Length == 0) Console.WriteLine(Path.GetFileName(message) + ": passed");
        return matches.Length > 0;
    }
}
