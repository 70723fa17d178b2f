// Texts that look written, the same on every run; and what memory a loop leaves behind.
using System;
using System.IO;
using System.Text;

public static class Texts
{
    private static readonly string[] words = (
        "the of and to in is for that with contract supplier customer delivery payment schedule "
        + "quarter revenue forecast employee salary merger board meeting minutes approval budget "
        + "estimate drawing pump valve pressure test report sample patent claim licence source "
        + "release server network password account balance invoice").Split(' ');

    /// <summary>So many words; of two seeds two texts without a passage in common.</summary>
    public static string Prose(int count, uint seed)
    {
        var text = new StringBuilder();
        uint state = seed * 2654435761u + 1;
        for (int i = 0; i < count; ++i)
        {
            state = state * 1103515245u + 12345u;
            text.Append(words[state / 65536u % (uint)words.Length]);
            text.Append(i % 12 == 11 ? ".\n" : " ");
        }
        return text.ToString();
    }
}

public static class Memory
{
    /// <summary>Fails when an action that is repeated leaves more than 8 MiB of memory.</summary>
    public static void StaysWhen(int times, Action action)
    {
        for (int i = 0; i < times / 5; ++i) action();  // what a first use needs
        GC.Collect();
        long before = Resident();
        for (int i = 0; i < times; ++i) action();
        GC.Collect();
        long grown = Resident() - before;
        Expect.True(grown < 8 << 20, times + " times left " + grown + " bytes");
    }

    private static long Resident()
    {
        return long.Parse(File.ReadAllText("/proc/self/statm").Split(' ')[1]) * Environment.SystemPageSize;
    }
}
